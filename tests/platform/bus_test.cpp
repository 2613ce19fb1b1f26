// The bus between threads, between processes, and against peers that break its rules.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelvodrix.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

constexpr uint32_t kId = 0xCC4E6BC6, kOtherId = 7, kUnknownId = 8;
constexpr uint32_t kLong = 60000;  // ms; only a failing test waits that long, however loaded the machine
constexpr uint32_t kThrow = 0xDEAD;

// A type whose messages are one host-order number; a shorter message is rejected as the real decoders do it: the record
// stays as it was.
struct Record {
  uint32_t number;
  uint32_t *owned;
};

std::atomic<int> live_blocks;

uint32_t decode(const uint8_t *buffer, uint32_t length, void *to) {
  auto *record = static_cast<Record *>(to);
  if (length >= sizeof(record->number)) {
    std::memcpy(&record->number, buffer, sizeof(record->number));
    record->owned = new uint32_t(record->number);
    ++live_blocks;
  }
  return sizeof(Record);
}

void release(void *of) {
  auto *record = static_cast<Record *>(of);
  if (record->owned != nullptr) --live_blocks;
  delete record->owned;
}

template <uint32_t kSize>
uint32_t decode_sized(const uint8_t *, uint32_t, void *) {
  return kSize;
}

// Below the ports that the kernel gives to connecting sockets, so that none of those takes it before its receiver does.
std::string free_tcp_endpoint() {
  static uint16_t port = static_cast<uint16_t>(10000 + getpid() % 2500 * 8);  // tests that run at the same time differ
  for (bool free = false; !free; ++port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int probe = socket(AF_INET, SOCK_STREAM, 0);
    free = bind(probe, reinterpret_cast<sockaddr *>(&address), sizeof(address)) == 0;
    close(probe);
  }
  return "tcp://127.0.0.1:" + std::to_string(port - 1);
}

std::string endpoint(const std::string &transport, const std::string &name = "a") {
  if (transport == "tcp") {
    static std::map<std::string, std::string> endpoints;
    std::string &found = endpoints[name];
    if (found.empty()) found = free_tcp_endpoint();
    return found;
  }
  std::string text = transport + "://";
  if (transport == "ipc") text += testing::TempDir();
  return text + "kelvodrix_" + std::to_string(getpid()) + "_" + name;
}

int32_t send(uint32_t handle, std::vector<uint32_t> numbers, uint32_t destination = 0, uint32_t id = kId) {
  std::vector<DrixSendDescriptor> messages;
  for (uint32_t &number : numbers) messages.push_back({reinterpret_cast<uintptr_t>(&number), id, sizeof(number)});
  auto count = static_cast<uint32_t>(messages.size());
  return destination == 0 ? DRIX_SendMsg(handle, messages.data(), count)
                          : DRIX_SendToMsg(handle, messages.data(), count, destination);
}

std::vector<uint32_t> range(uint32_t from, uint32_t to) {
  std::vector<uint32_t> numbers;
  for (; from < to; ++from) numbers.push_back(from);
  return numbers;
}

class Sender {
 public:
  explicit Sender(const std::string &to, kelvodrix_options options = {kLong, 256, 1u << 20}) {
    EXPECT_EQ(kelvodrix_open(to.c_str(), &options, &handle), KELVODRIX_OK);
    EXPECT_NE(handle, 0u);
  }
  ~Sender() { kelvodrix_close(handle, 0, nullptr); }

  // The status, and the undelivered messages if there are any.
  std::pair<int32_t, uint64_t> flush(uint32_t timeout_ms = kLong) const {
    uint64_t undelivered = 12345;
    int32_t status = kelvodrix_flush(handle, timeout_ms, &undelivered);
    return {status, undelivered};
  }

  uint32_t handle = 0;
};

const std::pair<int32_t, uint64_t> kAllDelivered = {KELVODRIX_OK, 0};

// A receiver that notes the numbers it gets, and its loop.
class Receiver {
 public:
  explicit Receiver(const std::string &at, bool started = true) {
    EXPECT_EQ(DRIX_RegIDLFuncHook(kId, decode, release), KELVODRIX_OK);
    EXPECT_EQ(kelvodrix_receiver_create(at.c_str(), &receiver), KELVODRIX_OK);
    EXPECT_EQ(kelvodrix_subscribe(receiver, kId, note, this), KELVODRIX_OK);
    if (started) start();
  }
  ~Receiver() {
    stop();
    EXPECT_EQ(kelvodrix_receiver_destroy(receiver), KELVODRIX_OK);
    EXPECT_EQ(live_blocks, 0);
  }
  void start() {
    loop = std::thread([this] { EXPECT_EQ(kelvodrix_run(receiver), KELVODRIX_OK); });
  }
  void stop() {
    if (!loop.joinable()) return;
    kelvodrix_stop(receiver);
    loop.join();
  }
  kelvodrix_counters counters() const {
    kelvodrix_counters now;
    kelvodrix_get_counters(receiver, &now);
    return now;
  }

  kelvodrix_receiver *receiver = nullptr;
  std::vector<uint32_t> numbers;
  std::function<void(uint32_t)> on_number = [](uint32_t) {};
  std::thread loop;

 private:
  static void note(void *context, uint32_t id, const void *of, uint32_t size) {
    auto *self = static_cast<Receiver *>(context);
    auto *record = static_cast<const Record *>(of);
    EXPECT_EQ(id, kId);
    EXPECT_EQ(size, sizeof(Record));
    self->numbers.push_back(record->number);
    self->on_number(record->number);
    if (record->number == kThrow) throw std::runtime_error("subscriber");
  }
};

class Transport : public testing::TestWithParam<const char *> {};
INSTANTIATE_TEST_SUITE_P(Bus, Transport, testing::Values("inproc", "ipc", "tcp"),
                         [](const auto &of) { return of.param; });

TEST_P(Transport, DeliversBatchesInOrder) {
  Receiver receiver(endpoint(GetParam()));
  Sender sender(endpoint(GetParam()));
  uint32_t next = 0;
  for (uint32_t count : {1u, 2u, 64u, 0u, 5000u, 1u}) {
    EXPECT_EQ(send(sender.handle, range(next, next + count)), KELVODRIX_OK);
    next += count;
  }
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(receiver.counters().frames, 5u);
  EXPECT_EQ(receiver.counters().delivered, next);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, range(0, next));
}

TEST_P(Transport, KeepsDestinationsApart) {
  Receiver first(endpoint(GetParam(), "a")), second(endpoint(GetParam(), "b"));
  Sender sender(endpoint(GetParam(), "a")), other(endpoint(GetParam(), "a"));
  uint32_t destination = 0;
  ASSERT_EQ(kelvodrix_destination(sender.handle, endpoint(GetParam(), "b").c_str(), &destination), KELVODRIX_OK);
  EXPECT_NE(destination, 0u);
  EXPECT_EQ(send(sender.handle, {1}), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {2}, destination), KELVODRIX_OK);
  EXPECT_EQ(send(other.handle, {3}, destination), KELVODRIX_ERR_DESTINATION);
  EXPECT_EQ(send(destination, {4}), KELVODRIX_ERR_HANDLE);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first.stop();
  second.stop();
  EXPECT_EQ(first.numbers, range(1, 2));
  EXPECT_EQ(second.numbers, range(2, 3));
}

TEST_P(Transport, SlowReceiverFillsTheWindowAndLosesNothing) {
  Receiver receiver(endpoint(GetParam()), false);
  Sender sender(endpoint(GetParam()), {100, 4, 1000});
  // Connection or room may take longer than a send waits.
  const auto send_at_last = [&](uint32_t number) {
    const auto limit = steady_clock::now() + milliseconds(kLong);
    int32_t status;
    do status = send(sender.handle, {number});
    while (status != KELVODRIX_OK && steady_clock::now() < limit);
    return status;
  };
  EXPECT_EQ(send_at_last(0), KELVODRIX_OK);
  for (uint32_t i = 1; i < 4; ++i) EXPECT_EQ(send(sender.handle, {i}), KELVODRIX_OK);
  const auto before = steady_clock::now();
  EXPECT_EQ(send(sender.handle, {99}), KELVODRIX_ERR_WINDOW);
  EXPECT_GE(steady_clock::now() - before, milliseconds(100));
  EXPECT_EQ(sender.flush(20), std::pair(int32_t{KELVODRIX_ERR_PENDING}, uint64_t{4}));
  EXPECT_EQ(send(sender.handle, range(0, 82)), KELVODRIX_ERR_TOO_BIG);  // 28 + 82 * 12 bytes
  receiver.start();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(send(sender.handle, range(4, 85)), KELVODRIX_OK);
  EXPECT_EQ(send_at_last(85), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, range(0, 86));
}

TEST_P(Transport, RestartedReceiverAnswersForItselfOnly) {
  auto first = std::make_unique<Receiver>(endpoint(GetParam()));
  Sender sender(endpoint(GetParam()), {kLong, 2, 1000});
  EXPECT_EQ(send(sender.handle, {1, 2}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first->stop();
  EXPECT_EQ(send(sender.handle, {3, 4, 5}), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {6}), KELVODRIX_OK);
  first.reset();
  Receiver second(endpoint(GetParam()));
  EXPECT_EQ(send(sender.handle, {7}), KELVODRIX_OK);  // needs the room that the lost frames took
  EXPECT_EQ(sender.flush(), std::pair(int32_t{KELVODRIX_ERR_LOST}, uint64_t{4}));
  second.stop();
  EXPECT_EQ(second.numbers, range(7, 8));
}

TEST_P(Transport, EndpointIsFreeAsSoonAsItsReceiverIsGone) {
  Sender sender(endpoint(GetParam()));
  for (uint32_t i = 0; i < 30; ++i) {
    Receiver receiver(endpoint(GetParam()));
    // A frame may yet follow the receiver before into its grave.
    for (uint32_t attempt = 0; i == 29 && attempt < 100 && receiver.counters().delivered == 0; ++attempt) {
      EXPECT_EQ(send(sender.handle, {i}), KELVODRIX_OK);
      EXPECT_NE(sender.flush().first, KELVODRIX_ERR_PENDING);
    }
    EXPECT_EQ(receiver.counters().delivered, i == 29 ? 1u : 0u);
  }
}

TEST_P(Transport, ThreadsShareAChannel) {
  Receiver receiver(endpoint(GetParam()));
  Sender sender(endpoint(GetParam()), {kLong, 8, 1000});
  std::vector<std::thread> threads;
  for (uint32_t thread = 0; thread < 4; ++thread)
    threads.emplace_back([&, thread] {
      for (uint32_t i = 0; i < 250; ++i) EXPECT_EQ(send(sender.handle, {thread << 16 | i}), KELVODRIX_OK);
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  receiver.stop();
  EXPECT_EQ(receiver.numbers.size(), 1000u);
  uint32_t next[4] = {};
  for (uint32_t number : receiver.numbers) EXPECT_EQ(number & 0xFFFF, next[number >> 16]++);
}

TEST(Bus, AbsentReceiverIsReported) {
  Sender sender(endpoint("ipc"), {100, 4, 1000});
  EXPECT_EQ(send(sender.handle, {1}), KELVODRIX_ERR_NO_RECEIVER);
  EXPECT_EQ(sender.flush(0), kAllDelivered);  // nothing was queued
  Sender early(endpoint("inproc"), {100, 4, 1000});
  EXPECT_EQ(send(early.handle, {1}), KELVODRIX_OK);
  EXPECT_EQ(early.flush(20), std::pair(int32_t{KELVODRIX_ERR_PENDING}, uint64_t{1}));
  Receiver receiver(endpoint("inproc"));
  EXPECT_EQ(early.flush(), kAllDelivered);
}

TEST(Bus, WaitingSendHoldsUpNothingElse) {
  Receiver full(endpoint("ipc", "a"), false), idle(endpoint("ipc", "b"));
  Sender sender(endpoint("ipc", "a"), {kLong, 1, 1000});
  uint32_t destination = 0;
  ASSERT_EQ(kelvodrix_destination(sender.handle, endpoint("ipc", "b").c_str(), &destination), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {1}), KELVODRIX_OK);
  std::atomic<bool> waiting = true;
  std::thread waiter([&] {
    EXPECT_EQ(send(sender.handle, {2}), KELVODRIX_ERR_HANDLE);
    waiting = false;
  });
  std::this_thread::sleep_for(milliseconds(50));  // or else there is nothing to hold up
  EXPECT_EQ(sender.flush(0), std::pair(int32_t{KELVODRIX_ERR_PENDING}, uint64_t{1}));
  EXPECT_EQ(send(sender.handle, {3}, destination), KELVODRIX_OK);
  while (sender.flush(1).second == 2 && waiting) {
  }
  EXPECT_TRUE(waiting);
  EXPECT_EQ(kelvodrix_close(sender.handle, 0, nullptr), KELVODRIX_ERR_PENDING);
  waiter.join();
  idle.stop();
  EXPECT_EQ(idle.numbers, range(3, 4));
}

// Runs body in a child process once the parent says so; the child ends with the body's result.
class Child {
 public:
  explicit Child(const std::function<int()> &body) {
    EXPECT_EQ(pipe(go_), 0);
    if ((pid_ = fork()) != 0) return;
    char byte;
    _exit(read(go_[0], &byte, 1) == 1 ? body() : 255);
  }
  ~Child() {
    close(go_[0]);
    close(go_[1]);
  }
  void start() { EXPECT_EQ(write(go_[1], "", 1), 1); }
  void kill() const { ::kill(pid_, SIGKILL); }
  int wait() const {
    int status = 0;
    waitpid(pid_, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
  }

 private:
  int go_[2] = {};
  pid_t pid_ = 0;
};

TEST(Bus, KilledReceiverLeavesItsMessagesCounted) {
  std::string at = endpoint("ipc");
  Child first([&] {
    Receiver receiver(at, false);
    receiver.on_number = [](uint32_t number) { number == 5 ? pause() : 0; };
    return kelvodrix_run(receiver.receiver);
  });
  Child second([&] {
    Receiver receiver(at, false);
    receiver.on_number = [&](uint32_t number) {
      if (number == 22) kelvodrix_stop(receiver.receiver);
    };
    kelvodrix_run(receiver.receiver);
    return receiver.numbers == range(20, 23) ? 0 : 1;
  });
  Sender sender(at, {kLong, 5, 1000}), last(at);
  first.start();
  for (uint32_t i = 0; i < 5; ++i) EXPECT_EQ(send(sender.handle, {2 * i, 2 * i + 1}), KELVODRIX_OK);
  for (uint32_t ms = 0; ms < kLong && sender.flush(1).second > 6; ++ms) {
  }
  first.kill();  // it hangs in the third frame
  EXPECT_EQ(first.wait(), -SIGKILL);
  EXPECT_EQ(sender.flush(200), std::pair(int32_t{KELVODRIX_ERR_PENDING}, uint64_t{6}));
  second.start();
  EXPECT_EQ(sender.flush(), std::pair(int32_t{KELVODRIX_ERR_LOST}, uint64_t{6}));
  EXPECT_EQ(send(sender.handle, {20}), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {21}), KELVODRIX_OK);
  uint64_t undelivered = 0;
  EXPECT_EQ(kelvodrix_close(sender.handle, kLong, &undelivered), KELVODRIX_ERR_LOST);
  EXPECT_EQ(undelivered, 6u);
  EXPECT_EQ(send(last.handle, {22}), KELVODRIX_OK);
  EXPECT_EQ(second.wait(), 0);
}

TEST(Bus, CountsWhatBecameOfEachMessage) {
  Receiver receiver(endpoint("ipc"));
  Sender sender(endpoint("ipc"));
  ASSERT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode, release), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {1, kThrow, 3}), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {4, 5}, 0, kUnknownId), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {6}, 0, kOtherId), KELVODRIX_OK);
  DrixSendDescriptor rejected = {0, kId, 0};
  EXPECT_EQ(DRIX_SendMsg(sender.handle, &rejected, 1), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  kelvodrix_counters counters = receiver.counters();
  EXPECT_EQ(counters.frames, 4u);
  EXPECT_EQ(counters.messages, 7u);
  EXPECT_EQ(counters.delivered, 3u);
  EXPECT_EQ(counters.failed, 1u);
  EXPECT_EQ(counters.unknown_id, 2u);
  EXPECT_EQ(counters.no_subscriber, 1u);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (std::vector<uint32_t>{1, kThrow, 3, 0}));  // the rejected one reads as zero
}

// A peer that speaks to a receiver (DEALER) or to a sender (ROUTER) in raw bytes.
class RawPeer {
 public:
  explicit RawPeer(const std::string &at, int type = ZMQ_DEALER) : socket(zmq_socket(context, type)) {
    const int timeout = kLong, linger = 0;
    zmq_setsockopt(socket, ZMQ_RCVTIMEO, &timeout, sizeof(timeout));
    zmq_setsockopt(socket, ZMQ_LINGER, &linger, sizeof(linger));
    EXPECT_EQ(type == ZMQ_ROUTER ? zmq_bind(socket, at.c_str()) : zmq_connect(socket, at.c_str()), 0);
  }
  ~RawPeer() {
    zmq_close(socket);
    zmq_ctx_term(context);
  }
  void send(const std::string &bytes, int flags = 0) const {
    EXPECT_EQ(zmq_send(socket, bytes.data(), bytes.size(), flags), static_cast<int>(bytes.size()));
  }
  std::string receive() const {
    char bytes[64];
    int size = zmq_recv(socket, bytes, sizeof(bytes), 0);
    return std::string(bytes, static_cast<size_t>(std::max(size, 0)));
  }

  void *context = zmq_ctx_new();
  void *socket;
};

std::string little_endian(uint64_t value, size_t size) {
  std::string bytes;
  for (; size != 0; --size, value >>= 8) bytes += static_cast<char>(value);
  return bytes;
}

std::string frame(char kind, uint64_t sequence) {
  return std::string("KDRX\1\0", 6) + kind + '\0' + "linklink" + little_endian(sequence, 8);
}

std::string data_frame(uint64_t sequence, uint32_t number) {
  return frame(1, sequence) + little_endian(1, 4) + little_endian(kId, 4) + little_endian(4, 4) +
         std::string(reinterpret_cast<const char *>(&number), sizeof(number));
}

std::string probe(uint64_t sequence) { return frame(2, sequence); }

std::string acknowledgement(uint64_t first, uint64_t last, uint64_t settled) {
  return frame(3, settled) + little_endian(first, 8) + little_endian(last, 8);
}

TEST(Bus, DropsMalformedFramesAndGoesOn) {
  Receiver receiver(endpoint("ipc"));
  RawPeer peer(endpoint("ipc"));
  const std::string good = data_frame(1, 1);
  std::vector<std::string> bad = {good + '\0', acknowledgement(1, 1, 1), probe(1) + '\0', data_frame(0, 1),
                                  frame(1, 1) + little_endian(2, 4) + little_endian(0x7FFFFFFFuLL << 32 | kId, 8)};
  for (size_t size = 0; size < good.size(); ++size)
    if (size != 24) bad.push_back(good.substr(0, size));
  // Magic, version, kind, count, and the four bytes of the message's length.
  for (size_t at : {0u, 3u, 4u, 5u, 6u, 7u, 24u, 27u, 32u, 33u, 34u, 35u})
    for (char flip : {'\1', '\x80'}) {
      bad.push_back(good);
      bad.back()[at] ^= flip;
    }
  for (const std::string &bytes : bad) peer.send(bytes);
  peer.send(good, ZMQ_SNDMORE);
  peer.send(good, ZMQ_SNDMORE);
  peer.send(good);
  peer.send(good);
  EXPECT_EQ(peer.receive(), acknowledgement(1, 1, 1));
  EXPECT_EQ(receiver.counters().malformed, bad.size() + 1);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, range(1, 2));
}

TEST(Bus, AcknowledgesRunsAndNeverHandlesTwice) {
  Receiver receiver(endpoint("ipc"));
  RawPeer peer(endpoint("ipc"));
  struct Step {
    std::string frame;
    std::vector<std::string> answers;
  };
  const Step steps[] = {
      {probe(0), {acknowledgement(1, 0, 0)}},
      {data_frame(3, 3), {acknowledgement(1, 0, 2), acknowledgement(3, 3, 3)}},  // joined late
      {data_frame(4, 4), {acknowledgement(3, 4, 4)}},
      {data_frame(4, 44), {acknowledgement(3, 4, 4)}},  // repeated
      {data_frame(2, 2), {acknowledgement(3, 4, 4)}},   // declared lost before
      {probe(4), {acknowledgement(3, 4, 4)}},
      {data_frame(7, 7), {acknowledgement(3, 4, 6), acknowledgement(7, 7, 7)}},
      {probe(9), {acknowledgement(7, 7, 9)}},
      {data_frame(8, 8), {acknowledgement(7, 7, 9)}},
      {data_frame(10, 10), {acknowledgement(7, 7, 9), acknowledgement(10, 10, 10)}},
  };
  for (const Step &step : steps) {
    peer.send(step.frame);
    for (const std::string &answer : step.answers) EXPECT_EQ(peer.receive(), answer);
  }
  receiver.stop();
  EXPECT_EQ(receiver.counters().stale, 3u);
  EXPECT_EQ(receiver.numbers, (std::vector<uint32_t>{3, 4, 7, 10}));
}

TEST(Bus, SenderBelievesOnlyGoodAcknowledgements) {
  RawPeer peer(endpoint("ipc"), ZMQ_ROUTER);
  Sender sender(endpoint("ipc"));
  EXPECT_EQ(send(sender.handle, {1, 2}), KELVODRIX_OK);
  const std::string to = peer.receive(), link = peer.receive().substr(8, 8);
  const auto answer = [&](std::string bytes, bool own = true) {
    if (own && bytes.size() >= 16) bytes.replace(8, 8, link);
    peer.send(to, ZMQ_SNDMORE);
    peer.send(bytes);
  };
  const std::string good = acknowledgement(1, 1, 1);
  for (size_t size = 0; size < good.size(); ++size) answer(good.substr(0, size));
  for (const std::string &bad : {acknowledgement(1, 2, 2), data_frame(1, 1), probe(1)}) answer(bad);
  answer(good, false);
  answer(std::string(1024, '\xFF'));
  EXPECT_EQ(sender.flush(200), std::pair(int32_t{KELVODRIX_ERR_PENDING}, uint64_t{2}));
  answer(good);
  EXPECT_EQ(sender.flush(), kAllDelivered);
}

TEST(Bus, RefusesEndpointsThatCannotServe) {
  std::string folder = testing::TempDir() + "kelvodrix_folder_" + std::to_string(getpid());
  std::string file = folder + "_file";
  ASSERT_EQ(mkdir(folder.c_str(), 0555), 0);
  std::ofstream(file) << "precious";
  Receiver receiver(endpoint("ipc")), inside(endpoint("inproc"));
  const bool root = geteuid() == 0;
  ASSERT_EQ(seteuid(root ? 65534 : geteuid()), 0);  // root may write anywhere
  struct Case {
    std::string endpoint;
    int32_t status;
  };
  const Case cases[] = {
      {"ipc://" + folder + "/x", KELVODRIX_ERR_BIND},
      {folder + "/missing/x", KELVODRIX_ERR_BIND},
      {file, KELVODRIX_ERR_BIND},
      {endpoint("inproc"), KELVODRIX_ERR_IN_USE},
      {"ipc://" + std::string(200, 'x'), KELVODRIX_ERR_ENDPOINT},
      {"ipc://", KELVODRIX_ERR_ENDPOINT},
      {"", KELVODRIX_ERR_ENDPOINT},
      {"pgm://x", KELVODRIX_ERR_ENDPOINT},
      {"tcp://nowhere", KELVODRIX_ERR_ENDPOINT},
  };
  for (const Case &each : cases) {
    kelvodrix_receiver *none = nullptr;
    EXPECT_EQ(kelvodrix_receiver_create(each.endpoint.c_str(), &none), each.status) << each.endpoint;
    EXPECT_EQ(none, nullptr);
    uint32_t handle = 0;
    if (each.status == KELVODRIX_ERR_ENDPOINT) {
      EXPECT_EQ(kelvodrix_open(each.endpoint.c_str(), nullptr, &handle), each.status) << each.endpoint;
    }
  }
  ASSERT_EQ(seteuid(getuid()), 0);
  kelvodrix_receiver *second = nullptr;
  EXPECT_EQ(kelvodrix_receiver_create(endpoint("ipc").c_str(), &second), KELVODRIX_ERR_IN_USE);
  EXPECT_EQ(remove(file.c_str()), 0);  // nothing has replaced it
  rmdir(folder.c_str());
}

kelvodrix_receiver *stopped_by_signal;

TEST(Bus, StopsFromEverywhere) {
  Receiver receiver(endpoint("inproc"));
  receiver.stop();  // from another thread
  kelvodrix_stop(receiver.receiver);
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);  // stopped before

  stopped_by_signal = receiver.receiver;
  signal(SIGALRM, [](int) { kelvodrix_stop(stopped_by_signal); });
  ualarm(20000, 0);
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
  signal(SIGALRM, SIG_DFL);

  Sender sender(endpoint("inproc"));
  receiver.on_number = [&](uint32_t number) {
    EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_ERR_BUSY);
    EXPECT_EQ(kelvodrix_receiver_destroy(receiver.receiver), KELVODRIX_ERR_BUSY);
    if (number == 1) kelvodrix_stop(receiver.receiver);
  };
  EXPECT_EQ(send(sender.handle, {1, 2}), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {3}), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
  EXPECT_EQ(receiver.numbers, range(1, 3));  // the whole frame, and no more
}

TEST(Bus, ChecksRegistrations) {
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, nullptr, release), KELVODRIX_ERR_INVALID);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode, nullptr), KELVODRIX_ERR_INVALID);
  const auto nothing = [](void *) {};
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode_sized<0>, nothing), KELVODRIX_ERR_RECORD_SIZE);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode_sized<KELVODRIX_MAX_RECORD_BYTES + 1>, nothing),
            KELVODRIX_ERR_RECORD_SIZE);

  Receiver receiver(endpoint("ipc"));
  Sender sender(endpoint("ipc"));
  std::atomic<uint32_t> seen = 0;
  const auto note_size = [](void *to, uint32_t, const void *, uint32_t size) {
    *static_cast<std::atomic<uint32_t> *>(to) = size;
  };
  EXPECT_EQ(kelvodrix_subscribe(receiver.receiver, kOtherId, note_size, &seen), KELVODRIX_OK);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode, release), KELVODRIX_OK);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode_sized<KELVODRIX_MAX_RECORD_BYTES>, nothing), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {1}, 0, kOtherId), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(seen, KELVODRIX_MAX_RECORD_BYTES);  // the latest registration counts
  EXPECT_EQ(kelvodrix_subscribe(receiver.receiver, kOtherId, nullptr, nullptr), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {1}, 0, kOtherId), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(receiver.counters().no_subscriber, 1u);
}

int hook_calls;

TEST(Bus, CallsCleanHooksAfterTheLastChannel) {
  EXPECT_EQ(DRIX_RegIDLResorceCleanFuncHook(nullptr), KELVODRIX_ERR_INVALID);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(DRIX_RegIDLResorceCleanFuncHook([] { ++hook_calls; }), KELVODRIX_OK);
  hook_calls = 0;
  uint32_t one = 0, two = 0;
  EXPECT_EQ(kelvodrix_open(endpoint("ipc").c_str(), nullptr, &one), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_open(endpoint("ipc").c_str(), nullptr, &two), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_close(one, 0, nullptr), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_close(one, 0, nullptr), KELVODRIX_ERR_HANDLE);
  EXPECT_EQ(hook_calls, 0);
  EXPECT_EQ(kelvodrix_close(two, 0, nullptr), KELVODRIX_OK);
  EXPECT_EQ(hook_calls, 1);
  EXPECT_EQ(send(two, {1}), KELVODRIX_ERR_HANDLE);
}

}  // namespace
