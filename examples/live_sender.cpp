#include "live_sender.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>
#include <variant>
#include <vector>

#include "drix_message.hpp"
#include "kelvodrix.h"
#include "kernel_routes.h"
#include "live_feed.h"
#include "process.h"

namespace live {
namespace {

using std::chrono::milliseconds;

constexpr milliseconds kBeatInterval{100};
constexpr milliseconds kRetryInterval{1};     // of a send for which there was no room
constexpr std::chrono::seconds kPatience{2};  // with a receiver that takes nothing
constexpr std::size_t kMostReceivers = 64;
constexpr uint64_t kLeastBacklog = 65536;  // changes; a receiver may lag by so many, or as many as there are routes

[[noreturn]] void fail(const char *what) { throw std::system_error(errno, std::generic_category(), what); }

class Descriptor {
 public:
  Descriptor(int fd, const char *what) : fd_(fd) {
    if (fd < 0) fail(what);
  }
  Descriptor(const Descriptor &) = delete;
  Descriptor &operator=(const Descriptor &) = delete;
  ~Descriptor() { close(fd_); }

  int get() const { return fd_; }

 private:
  int fd_;
};

// Takes SIGINT, SIGTERM and SIGUSR1 out of a descriptor instead of having the process interrupted. To be made before
// other threads are.
class Signals {
 public:
  Signals() : descriptor_(signalfd(-1, block(), SFD_NONBLOCK | SFD_CLOEXEC), "cannot wait for signals") {}

  int fd() const { return descriptor_.get(); }

  // 0 when there is none.
  int take() const {
    signalfd_siginfo signal = {};
    const ssize_t count = read(fd(), &signal, sizeof signal);
    return count == sizeof signal ? static_cast<int>(signal.ssi_signo) : 0;
  }

 private:
  static const sigset_t *block() {
    static sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1}) sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return &set;
  }

  Descriptor descriptor_;
};

// The endpoint at which receivers ask. The bus has a loop of its own, which runs in a thread of its own.
class Requests {
 public:
  using Streams = std::map<std::string, uint32_t>;  // asked for, by the receivers' endpoints

  explicit Requests(const std::string &endpoint) : event_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "no event") {
    check(fib6_cfg_recv_init(), "cannot register the decoders");
    check(kelvodrix_receiver_create(endpoint.c_str(), &receiver_), "cannot receive requests at " + endpoint);
    const auto take = [](void *self, uint32_t, const void *record, uint32_t) {
      static_cast<Requests *>(self)->take(*static_cast<const fib6_cfg_query_comm_param *>(record));
    };
    kelvodrix_subscribe(receiver_, drix::message<fib6_cfg_query_comm_param>::id, take, this);
    thread_ = std::thread([this] {
      kelvodrix_run(receiver_);
      ended_ = true;
      wake_up();
    });
  }
  Requests(const Requests &) = delete;
  Requests &operator=(const Requests &) = delete;
  ~Requests() {
    kelvodrix_stop(receiver_);
    thread_.join();
    kelvodrix_receiver_destroy(receiver_);
  }

  // Can be read from when there are requests.
  int fd() const { return event_.get(); }

  // Of each endpoint the last request.
  Streams take_all() {
    uint64_t count;
    [[maybe_unused]] const ssize_t got = read(fd(), &count, sizeof count);
    if (ended_) throw std::runtime_error("cannot receive requests any more");
    std::lock_guard lock(mutex_);
    return std::exchange(streams_, {});
  }

 private:
  void take(const fib6_cfg_query_comm_param &request) {
    const drix::span<const uint8_t> endpoint(request.f2, request.f2Len);
    if (request.f1 != kVersion || endpoint.empty()) {
      std::fprintf(stderr, "route_sender: a request of another version, %u, was left alone\n", request.f1);
      return;
    }
    {
      std::lock_guard lock(mutex_);
      streams_[std::string(endpoint.begin(), endpoint.end())] = request.f0;
    }
    wake_up();
  }

  void wake_up() {
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(fd(), &one, sizeof one);
  }

  Descriptor event_;
  kelvodrix_receiver *receiver_ = nullptr;
  std::mutex mutex_;
  Streams streams_;  // guarded
  std::atomic<bool> ended_ = false;
  std::thread thread_;
};

// A receiver that has asked. It is sent what it can take at once, and given up when it takes nothing or falls too far
// behind: it will notice, and ask again.
class Subscription {
 public:
  Subscription(const Feed &feed, const std::string &endpoint, uint32_t stream) : stream_(feed, stream) {
    const kelvodrix_options options = {.send_timeout_ms = 0, .window_frames = 4096, .window_bytes = 32u << 20};
    check(kelvodrix_open(endpoint.c_str(), &options, &handle_), "cannot send to " + endpoint);
  }
  Subscription(const Subscription &) = delete;
  Subscription &operator=(const Subscription &) = delete;
  ~Subscription() { kelvodrix_close(handle_, 0, nullptr); }

  Stream &stream() { return stream_; }

  // Sends what there is room for.
  void send() {
    for (const Batch *batch; (batch = stream_.next()) != nullptr; stream_.sent()) {
      const int32_t status = std::visit([this](const auto &records) { return drix::send(handle_, records); }, *batch);
      waits_ = status != KELVODRIX_OK;
      if (waits_) return;
      last_success_ = Clock::now();
    }
  }

  // Whether something is left for which there was no room.
  bool waits() const { return waits_; }
  bool is_given_up() const { return waits_ && Clock::now() - last_success_ > kPatience; }

 private:
  Stream stream_;
  uint32_t handle_ = 0;
  bool waits_ = false;
  Clock::time_point last_success_ = Clock::now();
};

class Sender {
 public:
  explicit Sender(const SenderOptions &options) : options_(options), requests_(options.requests) {}

  void run() {
    kernel_->read_all();
    const KernelRoutes::Counters read = kernel_->counters();
    std::printf("read %zu routes from the kernel in %.3f s\n", feed_.table().size(), read.dump_seconds);
    std::fflush(stdout);
    while (!ended_) {
      pollfd items[] = {{kernel_->fd(), POLLIN, 0}, {requests_.fd(), POLLIN, 0}, {signals_.fd(), POLLIN, 0}};
      if (poll(items, std::size(items), static_cast<int>(pause().count())) < 0 && errno != EINTR) fail("cannot wait");
      kernel_->take_changes();
      if (items[1].revents != 0) take_requests();
      send();
      while (const int signal = signals_.take()) {
        if (signal != SIGUSR1) ended_ = true;
        print_status();
      }
    }
  }

 private:
  // Until there is something to do, even if nothing happens.
  milliseconds pause() const {
    const bool waits =
        std::any_of(receivers_.begin(), receivers_.end(), [](const auto &each) { return each.second->waits(); });
    const auto beat = std::chrono::ceil<milliseconds>(next_beat_ - Clock::now());
    return std::max(milliseconds(0), std::min({waits ? kRetryInterval : kBeatInterval, beat, kernel_->due()}));
  }

  void take_requests() {
    for (const auto &[endpoint, stream] : requests_.take_all()) {
      std::unique_ptr<Subscription> &receiver = receivers_[endpoint];
      if (receiver && receiver->stream().number() == stream) continue;  // it has asked twice
      try {
        if (receivers_.size() > kMostReceivers) throw std::runtime_error("too many receivers");
        receiver = std::make_unique<Subscription>(feed_, endpoint, stream);
        ++tables_;
      } catch (const std::exception &error) {
        std::fprintf(stderr, "route_sender: a request was refused: %s\n", error.what());
        receivers_.erase(endpoint);
      }
    }
  }

  void send() {
    const bool beats = Clock::now() >= next_beat_;
    if (beats) next_beat_ = Clock::now() + kBeatInterval;
    uint64_t oldest = feed_.changes();
    const uint64_t most = std::max<uint64_t>(kLeastBacklog, feed_.table().size());
    for (auto each = receivers_.begin(); each != receivers_.end();) {
      Subscription &receiver = *each->second;
      if (beats) receiver.stream().beat();
      receiver.send();
      const uint64_t position = receiver.stream().position();
      if (receiver.is_given_up() || feed_.changes() - position > most) {
        std::fprintf(stderr, "route_sender: %s takes too little and is given up\n", each->first.c_str());
        each = receivers_.erase(each);
        continue;
      }
      oldest = std::min(oldest, position);
      ++each;
    }
    feed_.forget(oldest);
    if (beats && options_.status && feed_.summary() != printed_) print_status();
  }

  void print_status() {
    printed_ = feed_.summary();
    const KernelRoutes::Counters kernel = kernel_->counters();
    std::printf("%s receivers=%zu changes=%" PRIu64 " tables=%" PRIu64 " dumps=%" PRIu64 " events=%" PRIu64
                " losses=%" PRIu64 " left_out=%" PRIu64 " in_doubt=%d\n",
                format_summary(printed_).c_str(), receivers_.size(), feed_.changes(), tables_, kernel.dumps,
                kernel.events, kernel.losses, kernel.left_out, kernel.in_doubt);
    std::fflush(stdout);
  }

  const SenderOptions &options_;
  Signals signals_;
  Requests requests_;
  Feed feed_{std::random_device()()};
  std::unique_ptr<KernelRoutes> kernel_ = open_kernel_routes(
      feed_.table(), [this](uint32_t number, const std::string &name) { feed_.name_interface(number, name); },
      options_.buffer);
  std::map<std::string, std::unique_ptr<Subscription>> receivers_;  // by their endpoints
  Clock::time_point next_beat_ = Clock::now();
  Summary printed_;
  uint64_t tables_ = 0;  // begun to be sent
  bool ended_ = false;
};

}  // namespace

void follow(const SenderOptions &options) { Sender(options).run(); }

}  // namespace live
