// Measures the bus between hosts, and as much traffic by the client library alone: frames of the same bytes, windows and
// acknowledgements as the bus has, nothing else done with them. An endpoint at a server is one of kelvodrix.h without its
// name, and as plain://HOST:PORT or plain-stream://HOST:PORT it is the client library's; others are used as they stand.
//
// drix_bench_cluster rate ENDPOINT BATCH RECORDS RECEIVERS  records a second, until all receivers have acknowledged all
// drix_bench_cluster single ENDPOINT COUNT                  milliseconds from a send to its acknowledgement: that of half
//                                                           of the messages, of 99 in 100, and the longest
// drix_bench_cluster stall ENDPOINT SECONDS                 the longest send in seconds, each waiting until the one before
//                                                           is stored or handled; prints "sending" first
#include <nats/nats.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "drix_message.hpp"
#include "fib6Sync.h"
#include "kelvodrix.h"

namespace {

using Clock = std::chrono::steady_clock;
using Route = fib6Sync_ipv6FwdUpdateMsg;

constexpr uint32_t kLong = 120000;  // ms
constexpr uint32_t kWindowFrames = 4096, kWindowBytes = 32 << 20, kMostOwed = 64;
constexpr uint32_t kRouteId = drix_message_id("fib6Sync.ipv6FwdUpdateMsg");

double seconds_since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void require(int32_t status, const char *what) {
  if (status != KELVODRIX_OK) throw std::runtime_error(std::string(what) + ": " + kelvodrix_strerror(status));
}
void require(natsStatus status, const char *what) {
  if (status != NATS_OK) throw std::runtime_error(std::string(what) + ": " + natsStatus_GetText(status));
}

// No member is zero, so that all records take as many bytes.
std::vector<Route> make_routes(uint32_t count) {
  Route route;
  std::memset(&route, 1, sizeof route);
  return std::vector<Route>(count, route);
}

// One sender, and receivers that end when each has had so many records.
class Exchange {
 public:
  virtual ~Exchange() = default;
  // Calls ready when it is there for a sender.
  virtual void receive(uint32_t receiver, uint64_t records, void (*ready)()) = 0;
  virtual void start(uint32_t receivers, uint32_t window_frames) = 0;
  virtual void send(const std::vector<Route> &routes) = 0;
  // Returns when all is acknowledged, and at the end handled.
  virtual void flush(bool end) = 0;
};

class Bus final : public Exchange {
 public:
  explicit Bus(const std::string &endpoint)
      : stream_(endpoint.find("-stream://") != endpoint.npos),
        endpoint_(endpoint + (endpoint.starts_with("nats") || endpoint.starts_with("tls") ? "/bench" : "")) {}
  ~Bus() override {
    for (const uint32_t handle : handles_) kelvodrix_close(handle, 0, nullptr);
  }

  void receive(uint32_t receiver, uint64_t records, void (*ready)()) override {
    struct Count {
      kelvodrix_receiver *receiver;
      uint64_t left;
    } count = {nullptr, records};
    require(fib6_sync_recv_init(), "decoders");
    const std::string at = endpoint_ + (stream_ ? "/r" : "") + std::to_string(receiver);
    require(kelvodrix_receiver_create(at.c_str(), &count.receiver), at.c_str());
    const auto take = [](void *context, uint32_t, const void *, uint32_t) {
      auto &own = *static_cast<Count *>(context);
      if (--own.left == 0) kelvodrix_stop(own.receiver);
    };
    require(kelvodrix_subscribe(count.receiver, kRouteId, take, &count), "subscribe");
    ready();
    require(kelvodrix_run(count.receiver), "run");
    kelvodrix_receiver_destroy(count.receiver);
  }

  void start(uint32_t receivers, uint32_t window_frames) override {
    const kelvodrix_options options = {kLong, window_frames, kWindowBytes};
    handles_.resize(stream_ ? 1 : receivers);
    for (uint32_t i = 0; i < handles_.size(); ++i) {
      const std::string at = endpoint_ + (stream_ ? "" : std::to_string(i));
      require(kelvodrix_open(at.c_str(), &options, &handles_[i]), at.c_str());
    }
  }
  void send(const std::vector<Route> &routes) override {
    for (const uint32_t handle : handles_) require(drix::send(handle, routes), "send");
  }
  void flush(bool) override {
    for (const uint32_t handle : handles_) require(kelvodrix_flush(handle, kLong, nullptr), "flush");
  }

 private:
  const bool stream_;
  const std::string endpoint_;
  std::vector<uint32_t> handles_;
};

// What the bus needs of the client library and no more: a reply subject, numbers, acknowledgements of up to 64 frames.
class Plain final : public Exchange {
 public:
  Plain(const std::string &endpoint, uint32_t batch)
      : stream_(endpoint.starts_with("plain-stream://")),
        url_("nats" + endpoint.substr(endpoint.find("://"))),
        batch_(batch) {
    uint32_t record = 1024;
    std::vector<uint8_t> image(record);
    require(fib6Sync_ipv6FwdUpdateMsg__pack(make_routes(1).data(), image.data(), &record), "pack");
    bytes_.assign((stream_ ? 20 : 28) + batch * (8 + record), 1);
    std::memcpy(&bytes_[sizeof number_], &batch_, sizeof batch_);
    window_ = std::clamp<uint64_t>(kWindowBytes / bytes_.size(), 1, kWindowFrames);
  }
  ~Plain() override {
    natsSubscription_Destroy(answers_);
    jsCtx_Destroy(js_);
    natsConnection_Destroy(nc_);
  }

  void receive(uint32_t receiver, uint64_t records, void (*ready)()) override {
    connect(true);
    natsSubscription *frames = nullptr;
    const std::string name = "r" + std::to_string(receiver);
    if (stream_) {
      jsSubOptions options;
      jsSubOptions_Init(&options);
      options.Config.Durable = name.c_str();
      options.Config.AckPolicy = js_AckAll;
      options.Config.MaxAckPending = kWindowFrames;
      options.Config.FlowControl = true;
      options.Config.Heartbeat = 1000000000;
      options.ManualAck = true;
      require(js_SubscribeSync(&frames, js_, "plain-stream.>", nullptr, &options, nullptr), "consumer");
    } else {
      require(natsConnection_SubscribeSync(&frames, nc_, (subject(receiver) + ".>").c_str()), "subscribe");
    }
    natsSubscription_SetPendingLimits(frames, -1, -1);
    require(natsConnection_Flush(nc_), "flush");
    ready();
    natsMsg *last = nullptr;
    uint32_t owed = 0;
    const auto acknowledge = [&] {
      if (owed == 0) return;
      if (stream_)
        natsMsg_Ack(last, nullptr);
      else
        natsConnection_Publish(nc_, natsMsg_GetReply(last), natsMsg_GetData(last), sizeof(uint64_t));
      owed = 0;
    };
    while (records != 0) {
      natsMsg *message = nullptr;
      natsStatus status = natsSubscription_NextMsg(&message, frames, owed != 0 ? 0 : kLong);
      if (status == NATS_TIMEOUT && owed != 0) {
        acknowledge();
        continue;
      }
      require(status, "next");
      natsMsg_Destroy(last);
      last = message;
      uint32_t count;
      std::memcpy(&count, natsMsg_GetData(message) + sizeof(uint64_t), sizeof count);
      records -= std::min<uint64_t>(records, count);
      if (++owed >= kMostOwed) acknowledge();
    }
    acknowledge();
    natsMsg_Destroy(last);
    if (stream_) natsConnection_Publish(nc_, "plain-done", nullptr, 0);
    natsConnection_Flush(nc_);
    natsSubscription_Destroy(frames);
  }

  void start(uint32_t receivers, uint32_t) override {
    receivers_ = receivers;
    connect(false);
    inbox_ = "_INBOX.plain" + std::to_string(getpid());
    for (uint32_t i = 0; i < receivers; ++i) acknowledged_.push_back(std::make_unique<std::atomic<uint64_t>>(0));
    const auto answer = [](natsConnection *, natsSubscription *, natsMsg *message, void *self) {
      static_cast<Plain *>(self)->take(message);
      natsMsg_Destroy(message);
    };
    require(natsConnection_Subscribe(&answers_, nc_, stream_ ? "plain-done" : (inbox_ + ".*").c_str(), answer, this),
            "subscribe");
  }

  // The number of the frame, how many records, and as many bytes as a frame of the bus has.
  void send(const std::vector<Route> &) override {
    ++number_;
    std::memcpy(bytes_.data(), &number_, sizeof number_);
    const int length = static_cast<int>(bytes_.size());
    if (stream_) {
      require(js_PublishAsync(js_, "plain-stream.m.01234567", bytes_.data(), length, nullptr), "publish");
      return;
    }
    for (uint32_t i = 0; i < receivers_; ++i) {
      while (number_ - *acknowledged_[i] > window_) std::this_thread::sleep_for(std::chrono::microseconds(20));
      require(natsConnection_PublishRequest(nc_, (subject(i) + ".01234567").c_str(),
                                            (inbox_ + '.' + std::to_string(i)).c_str(), bytes_.data(), length),
              "publish");
    }
  }
  void flush(bool end) override {
    natsConnection_Flush(nc_);
    if (stream_) require(js_PublishAsyncComplete(js_, nullptr), "complete");
    const auto all = [&] {
      if (stream_) return !end || done_ == receivers_;
      return std::all_of(acknowledged_.begin(), acknowledged_.end(),
                         [&](const auto &each) { return *each == number_; });
    };
    while (!all()) std::this_thread::sleep_for(std::chrono::microseconds(50));
  }

 private:
  static std::string subject(uint32_t receiver) { return "plain.bench" + std::to_string(receiver) + ".m"; }

  void connect(bool at_once) {
    natsOptions *options = nullptr;
    require(natsOptions_Create(&options), "options");
    natsOptions_SetURL(options, url_.c_str());
    natsOptions_SetSendAsap(options, at_once);
    const natsStatus status = natsConnection_Connect(&nc_, options);
    natsOptions_Destroy(options);
    require(status, "connect");
    if (!stream_) return;
    jsOptions js_options;
    jsOptions_Init(&js_options);
    js_options.PublishAsync.MaxPending = static_cast<int64_t>(window_);
    js_options.PublishAsync.StallWait = kLong;
    require(natsConnection_JetStream(&js_, nc_, &js_options), "JetStream");
    jsStreamConfig config;
    jsStreamConfig_Init(&config);
    const char *subjects[] = {"plain-stream.>"};
    config.Name = "plain";
    config.Subjects = subjects;
    config.SubjectsLen = 1;
    config.Storage = js_FileStorage;
    config.Discard = js_DiscardNew;
    config.MaxBytes = int64_t{8} << 30;
    jsErrCode error{};
    const natsStatus added = js_AddStream(nullptr, js_, &config, nullptr, &error);
    if (error != JSStreamNameExistErr) require(added, "stream");
  }

  void take(natsMsg *message) {
    if (stream_) {
      ++done_;
      return;
    }
    const char *const subject = natsMsg_GetSubject(message);
    uint64_t number;
    std::memcpy(&number, natsMsg_GetData(message), sizeof number);
    *acknowledged_[std::strtoul(std::strrchr(subject, '.') + 1, nullptr, 10)] = number;
  }

  const bool stream_;
  const std::string url_;
  natsConnection *nc_ = nullptr;
  jsCtx *js_ = nullptr;
  natsSubscription *answers_ = nullptr;
  std::string inbox_;
  const uint32_t batch_;
  uint32_t receivers_ = 0;
  std::vector<uint8_t> bytes_;
  uint64_t number_ = 0, window_ = 1;
  std::vector<std::unique_ptr<std::atomic<uint64_t>>> acknowledged_;  // the last number, by receiver
  std::atomic<uint32_t> done_ = 0;
};

std::unique_ptr<Exchange> make_exchange(const std::string &endpoint, uint32_t batch) {
  if (endpoint.starts_with("plain")) return std::make_unique<Plain>(endpoint, batch);
  return std::make_unique<Bus>(endpoint);
}

// Processes that receive so many records each; neither the bus nor the client library may have been used before. Returns
// when they are there.
void start_receivers(const std::string &endpoint, uint32_t batch, uint32_t receivers, uint64_t records) {
  static int ready[2];
  if (pipe(ready) != 0) throw std::runtime_error("pipe");
  for (uint32_t i = 0; i < receivers; ++i) {
    if (fork() != 0) continue;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // or one would wait for a sender that has failed
    try {
      make_exchange(endpoint, batch)->receive(i, records, [] { [[maybe_unused]] auto n = write(ready[1], "", 1); });
      _exit(0);
    } catch (const std::exception &error) {
      std::fprintf(stderr, "receiver %u: %s\n", i, error.what());
      _exit(1);
    }
  }
  close(ready[1]);
  char each;
  for (uint32_t i = 0; i < receivers; ++i)
    if (read(ready[0], &each, 1) != 1) throw std::runtime_error("no receiver");
}

bool all_receivers_succeeded() {
  bool good = true;
  for (int status; wait(&status) > 0;) good &= status == 0;
  return good;
}

void rate(const std::string &endpoint, uint32_t batch, uint32_t records, uint32_t receivers) {
  const uint32_t frames = std::max(1u, records / batch);
  start_receivers(endpoint, batch, receivers, uint64_t{batch} * (frames + 1));
  const auto exchange = make_exchange(endpoint, batch);
  exchange->start(receivers, kWindowFrames);
  const std::vector<Route> routes = make_routes(batch);
  exchange->send(routes);
  exchange->flush(false);
  const Clock::time_point start = Clock::now();
  for (uint32_t i = 0; i < frames; ++i) exchange->send(routes);
  exchange->flush(true);
  std::printf("%.0f\n", static_cast<double>(frames) * batch / seconds_since(start));
}

void single(const std::string &endpoint, uint32_t count) {
  start_receivers(endpoint, 1, 1, count + 1);
  const auto exchange = make_exchange(endpoint, 1);
  exchange->start(1, kWindowFrames);
  const std::vector<Route> routes = make_routes(1);
  std::vector<double> times;
  for (uint32_t i = 0; i <= count; ++i) {
    const Clock::time_point start = Clock::now();
    exchange->send(routes);
    exchange->flush(false);
    if (i != 0) times.push_back(1000 * seconds_since(start));  // the first one connects
    usleep(1000);
  }
  std::sort(times.begin(), times.end());
  std::printf("%.3f %.3f %.3f\n", times[count / 2], times[count * 99 / 100], times.back());
}

void stall(const std::string &endpoint, uint32_t seconds) {
  const auto exchange = make_exchange(endpoint, 1);
  exchange->start(1, 1);
  const std::vector<Route> routes = make_routes(1);
  exchange->send(routes);
  std::puts("sending");
  std::fflush(stdout);
  double longest = 0;
  for (const Clock::time_point start = Clock::now(); seconds_since(start) < seconds;) {
    const Clock::time_point before = Clock::now();
    exchange->send(routes);
    longest = std::max(longest, seconds_since(before));
  }
  std::printf("%.3f\n", longest);
}

}  // namespace

int main(int argc, char **argv) {
  const std::vector<std::string> words(argv + 1, argv + argc);
  const auto number = [&](std::size_t at) { return static_cast<uint32_t>(std::stoul(words[at])); };
  try {
    if (words.size() == 5 && words[0] == "rate") {
      rate(words[1], number(2), number(3), number(4));
    } else if (words.size() == 3 && words[0] == "single") {
      single(words[1], number(2));
    } else if (words.size() == 3 && words[0] == "stall") {
      stall(words[1], number(2));
    } else {
      std::fprintf(stderr, "drix_bench_cluster: see the head of bench/cluster.cpp\n");
      return 2;
    }
    return all_receivers_succeeded() ? 0 : 1;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "drix_bench_cluster: %s\n", error.what());
    return 1;
  }
}
