// The bus between threads, between processes, and against peers that break its rules.
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <malloc.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <new>
#include <sstream>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "kelvodrix.h"
#include "nats_server.h"

namespace {

using Numbers = std::vector<uint32_t>;
using Undelivered = std::pair<int32_t, uint64_t>;  // a flush's status and what it counts

constexpr uint32_t kId = 0xCC4E6BC6, kOtherId = 7, kUnknownId = 8;
constexpr uint32_t kLong = 60000;  // ms; only a failing test waits that long, however loaded the machine
constexpr uint32_t kThrow = 0xDEAD, kExit = 0xDEAE, kCancel = 0xDEAF;
const Undelivered kAllDelivered = {KELVODRIX_OK, 0};

// A type whose messages are one host-order number; a shorter message is rejected as the real decoders do it: the record
// stays as it was.
struct Record {
  uint32_t number;
  std::atomic<int> *decoded;  // what has to be released
};
std::atomic<int> live_records;
int hook_calls;
int used_names;  // a stream keeps what a test leaves
kelvodrix_receiver *stopped_by_signal;
std::atomic<size_t> heap_bytes, heap_peak;  // that the program holds and has held, the library included
// Set in a thread: it tells when it is about to write, and waits until it may.
struct Gate {
  std::atomic<bool> reached = false, open = false;
};
thread_local Gate *gate;

uint32_t decode(const uint8_t *buffer, uint32_t length, void *to) {
  auto *record = static_cast<Record *>(to);
  if (length < sizeof(record->number)) return sizeof(Record);
  std::memcpy(&record->number, buffer, sizeof(record->number));
  ++*(record->decoded = &live_records);
  return sizeof(Record);
}

void release(void *of) {
  if (static_cast<Record *>(of)->decoded != nullptr) --*static_cast<Record *>(of)->decoded;
}

NatsServer &server() {
  static NatsServer instance;
  return instance;
}

// Tests that run at the same time differ.
std::string endpoint(const std::string &transport, int number = 0) {
  const std::string name = "kelvodrix_" + std::to_string(getpid()) + '_' + std::to_string(number);
  if (transport.starts_with("nats"))
    return NatsServer::installed() ? server().address(transport + "://") + '/' + name : "";
  return transport + "://" + (transport == "ipc" ? testing::TempDir() : "") + name;
}

Numbers range(uint32_t from, uint32_t to) {
  Numbers numbers;
  for (; from < to; ++from) numbers.push_back(from);
  return numbers;
}

bool eventually(const std::function<bool()> &holds) {
  for (uint32_t ms = 0; ms < kLong && !holds(); ++ms) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  return holds();
}

struct Sender {
  explicit Sender(const std::string &to, kelvodrix_options options = {kLong, 256, 1u << 20}) {
    EXPECT_EQ(kelvodrix_open(to.c_str(), &options, &handle), KELVODRIX_OK);
  }
  ~Sender() { kelvodrix_close(handle, 0, nullptr); }
  int32_t send(Numbers numbers, uint32_t to = 0, uint32_t id = kId) const {
    std::vector<DrixSendDescriptor> messages;
    for (uint32_t &number : numbers) messages.push_back({reinterpret_cast<uintptr_t>(&number), id, sizeof(number)});
    const auto count = static_cast<uint32_t>(messages.size());
    return to == 0 ? DRIX_SendMsg(handle, messages.data(), count) : DRIX_SendToMsg(handle, messages.data(), count, to);
  }
  Undelivered flush(uint32_t timeout_ms = kLong) const {
    uint64_t undelivered = 12345;
    const int32_t status = kelvodrix_flush(handle, timeout_ms, &undelivered);
    return {status, undelivered};
  }
  uint32_t handle = 0;
};

// A receiver that notes the numbers it gets, and its loop.
struct Receiver {
  explicit Receiver(const std::string &at, bool started = true) {
    EXPECT_EQ(DRIX_RegIDLFuncHook(kId, decode, release), KELVODRIX_OK);
    const bool nameless = at.starts_with("nats-stream") && std::count(at.begin(), at.end(), '/') == 3;
    EXPECT_EQ(kelvodrix_receiver_create((at + (nameless ? "/receiver" : "")).c_str(), &receiver), KELVODRIX_OK);
    EXPECT_EQ(kelvodrix_subscribe(receiver, kId, note, this), KELVODRIX_OK);
    if (started) start();
  }
  ~Receiver() {
    stop();
    EXPECT_EQ(kelvodrix_receiver_destroy(receiver), KELVODRIX_OK);
    EXPECT_EQ(live_records, 0);
  }
  void start() {
    loop = std::thread([this] { EXPECT_EQ(kelvodrix_run(receiver), KELVODRIX_OK); });
  }
  void stop() {
    kelvodrix_stop(loop.joinable() ? receiver : nullptr);
    if (loop.joinable()) loop.join();
  }
  kelvodrix_counters counters() const {
    kelvodrix_counters now;
    kelvodrix_get_counters(receiver, &now);
    return now;
  }
  // Whether the loop, with nothing to do, takes processor time as this thread does.
  bool spins() {
    clockid_t clocks[2];
    EXPECT_EQ(pthread_getcpuclockid(loop.native_handle(), &clocks[0]), 0);
    EXPECT_EQ(pthread_getcpuclockid(pthread_self(), &clocks[1]), 0);
    const auto used_ms = [&](int clock) {
      timespec now;
      clock_gettime(clocks[clock], &now);
      return now.tv_sec * 1000 + now.tv_nsec / 1000000;
    };
    const auto loop_before = used_ms(0), before = used_ms(1);
    while (used_ms(1) < before + 100) {
    }
    return used_ms(0) > loop_before + 20;
  }
  // AddressSanitizer does not see a cancelled function's variables go.
  __attribute__((no_sanitize("address"))) static void note(void *context, uint32_t, const void *of, uint32_t size) {
    EXPECT_EQ(size, sizeof(Record));
    const uint32_t number = static_cast<const Record *>(of)->number;
    static_cast<Receiver *>(context)->numbers.push_back(number);
    static_cast<Receiver *>(context)->on_number(number);
    if (number == kThrow) throw number;
    if (number == kExit) pthread_exit(nullptr);
    if (number == kCancel) pthread_cancel(pthread_self());
    pthread_testcancel();
  }
  kelvodrix_receiver *receiver = nullptr;
  Numbers numbers;
  std::function<void(uint32_t)> on_number = [](uint32_t) {};
  std::thread loop;
};

int32_t create(const std::string &at) {
  kelvodrix_receiver *none = nullptr;
  return kelvodrix_receiver_create(at.c_str(), &none);
}

class Transport : public testing::TestWithParam<const char *> {
 protected:
  void SetUp() override {
    if (at.empty()) GTEST_SKIP() << "there is no nats-server (Debian: nats-server)";
  }
  const std::string at = endpoint(GetParam(), ++used_names), elsewhere = endpoint(GetParam(), ++used_names),
                    nowhere = endpoint(GetParam(), ++used_names);
};
// Those that keep nothing.
class Direct : public Transport {};
INSTANTIATE_TEST_SUITE_P(Bus, Transport, testing::Values("inproc", "ipc"));
INSTANTIATE_TEST_SUITE_P(Bus, Direct, testing::Values("inproc", "ipc"));
#ifdef WITH_NATS
INSTANTIATE_TEST_SUITE_P(BusCluster, Transport, testing::Values("nats", "nats-stream"));
INSTANTIATE_TEST_SUITE_P(BusCluster, Direct, testing::Values("nats"));
#endif

TEST_P(Transport, DeliversInOrderAndKeepsDestinationsApart) {
  Receiver receiver(at), other(elsewhere);
  Sender sender(at, {kLong, 8, 61000}), stranger(at);
  uint32_t next = 0, destination = 0;
  for (uint32_t count : {1u, 2u, 64u, 0u, 5000u, 1u}) {
    EXPECT_EQ(sender.send(range(next, next + count)), KELVODRIX_OK);
    next += count;
  }
  ASSERT_EQ(kelvodrix_destination(sender.handle, elsewhere.c_str(), &destination), KELVODRIX_OK);
  EXPECT_EQ(sender.send({2}, destination), KELVODRIX_OK);
  EXPECT_EQ(stranger.send({3}, destination), KELVODRIX_ERR_DESTINATION);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  std::vector<std::thread> threads;
  for (uint32_t thread = 1; thread < 5; ++thread)
    threads.emplace_back([&, thread] {
      for (uint32_t i = 0; i < 250; ++i) EXPECT_EQ(sender.send({thread << 16 | i}), KELVODRIX_OK);
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  receiver.stop();
  other.stop();
  EXPECT_EQ(other.numbers, range(2, 3));
  EXPECT_EQ(receiver.numbers.size(), next + 1000);
  uint32_t expected[5] = {};
  for (uint32_t number : receiver.numbers) EXPECT_EQ(number & 0xFFFF, expected[number >> 16]++);
}

TEST_P(Direct, SlowReceiverFillsTheWindowAndARestartedOneAnswersForItself) {
  auto first = std::make_unique<Receiver>(at, false);
  std::vector<uint8_t> large(12 << 20);
  DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(large.data()), kId, 12u << 20};
  Sender sender(at, {100, 4, 13u << 20}), small(at, {0, 1, 100}), many(at);
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(many.send({i}, 0, kUnknownId), KELVODRIX_OK);
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(sender.send({i}), KELVODRIX_OK);
  EXPECT_EQ(DRIX_SendMsg(sender.handle, &message, 1), KELVODRIX_OK);  // far more than a socket takes
  EXPECT_EQ(sender.send({99}), KELVODRIX_ERR_WINDOW);
  EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 4));
  EXPECT_EQ(small.send(Numbers(10, 7)), KELVODRIX_ERR_TOO_BIG);
  DrixSendDescriptor huge = {message.address, kId, UINT32_MAX - 20};
  EXPECT_EQ(DRIX_SendMsg(small.handle, &huge, 1), KELVODRIX_ERR_TOO_BIG);
  first->start();
  // Also what was not written yet arrives without a further call.
  EXPECT_TRUE(eventually([&] { return first->counters().delivered == 4 && first->counters().unknown_id == 40; }));
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first->stop();
  EXPECT_EQ(first->numbers, (Numbers{0, 1, 2, 0}));

  for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(sender.send(range(i, 5)), KELVODRIX_OK);
  for (uint32_t i = 0; i < 40; ++i) EXPECT_EQ(many.send({i, i}), KELVODRIX_OK);
  first.reset();
  Receiver second(at);
  EXPECT_EQ(sender.send({7}), KELVODRIX_OK);  // needs the room that the lost frames took
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 14));
  EXPECT_EQ(many.flush(), Undelivered(KELVODRIX_ERR_LOST, 80));
  second.stop();
  EXPECT_EQ(second.numbers, range(7, 8));
}

TEST_P(Direct, WaitingSendHoldsUpNothingElse) {
  Receiver full(at, false), idle(elsewhere);
  Sender sender(at, {kLong, 1, 1000}), absent(nowhere, {20, 4, 1000});
  uint32_t destination = 0;
  ASSERT_EQ(kelvodrix_destination(sender.handle, elsewhere.c_str(), &destination), KELVODRIX_OK);
  EXPECT_EQ(sender.send({1}), KELVODRIX_OK);
  std::thread waiter([&] { EXPECT_EQ(sender.send({2}), KELVODRIX_ERR_HANDLE); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));  // or else there is nothing to hold up
  EXPECT_EQ(sender.flush(0), Undelivered(KELVODRIX_ERR_PENDING, 1));
  EXPECT_EQ(sender.send({3}, destination), KELVODRIX_OK);
  EXPECT_EQ(absent.send({1}), KELVODRIX_ERR_NO_RECEIVER);
  EXPECT_EQ(absent.flush(0), kAllDelivered);  // nothing was queued
  EXPECT_TRUE(eventually([&] { return idle.counters().delivered == 1; }));
  EXPECT_EQ(kelvodrix_close(sender.handle, 0, nullptr), KELVODRIX_ERR_PENDING);
  waiter.join();
}

// A receiver in a process of its own.
struct Child {
  explicit Child(const std::string &at) : pid(fork()) {
    if (pid != 0) return;
    Receiver receiver(at, false);
    receiver.on_number = [](uint32_t number) { number == 5 ? pause() : 0; };
    _exit(kelvodrix_run(receiver.receiver));
  }
  ~Child() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  const pid_t pid;
};

TEST(Bus, PausedReceiverLosesNothingAndAKilledOneLeavesItsMessagesCounted) {
  const std::string at = endpoint("ipc");
  auto first = std::make_unique<Child>(at);
  Sender sender(at, {kLong, 64, 1 << 20});
  EXPECT_EQ(sender.send({0, 1}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  kill(first->pid, SIGSTOP);
  waitpid(first->pid, nullptr, WUNTRACED);
  for (uint32_t i = 0; i < 60; ++i) EXPECT_EQ(sender.send(Numbers(1000)), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 60000));
  kill(first->pid, SIGCONT);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(sender.send({4, 5}), KELVODRIX_OK);  // it hangs in that
  EXPECT_EQ(sender.send({6}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 3));
  first.reset();
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 3));
  const Child second(at);  // it replaces what the first has left
  EXPECT_EQ(sender.send({7}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 3));
}

TEST(Bus, ForkLeavesAChildABusThatWorks) {
#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__) || defined(EMULATED)
  GTEST_SKIP() << "a child may find a lock of the sanitizer or the emulator taken by a thread that it does not have";
#endif
  const std::string at = endpoint("ipc");
  Receiver receiver(at);
  const Sender sender(at);
  std::atomic<bool> done = false;
  std::vector<std::thread> threads;
  for (const std::function<int32_t()> &call : std::initializer_list<std::function<int32_t()>>{
           [&] { return sender.send({1}); },
           [] { return DRIX_RegIDLFuncHook(kOtherId, decode, release); },
           // Does little else than to hold the lock.
           [] { return DRIX_SendMsg(~0u, nullptr, 0) == KELVODRIX_ERR_HANDLE ? KELVODRIX_OK : -1; },
       })
    threads.emplace_back([&done, call] {
      while (!done) ASSERT_EQ(call(), KELVODRIX_OK);
    });
  int status = 0;
  for (int i = 0; i < 100 && status == 0; ++i) {
    const pid_t child = fork();
    if (child == 0) {
      alarm(kLong / 1000);  // should it hang
      const kelvodrix_options options = {kLong, 256, 1 << 20};
      uint32_t handle = 0, number = 2;
      DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(&number), kId, sizeof(number)};
      const bool works = DRIX_SendMsg(sender.handle, &message, 1) == KELVODRIX_ERR_HANDLE &&
                         DRIX_RegIDLFuncHook(kOtherId, decode, release) == KELVODRIX_OK &&
                         kelvodrix_open(at.c_str(), &options, &handle) == KELVODRIX_OK && handle != sender.handle &&
                         DRIX_SendMsg(handle, &message, 1) == KELVODRIX_OK &&
                         kelvodrix_close(handle, kLong, nullptr) == KELVODRIX_OK;
      _exit(works ? 0 : 1);
    }
    waitpid(child, &status, 0);
  }
  EXPECT_EQ(status, 0);
  done = true;
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  const pid_t child = fork();
  if (child == 0) {
    alarm(kLong / 1000);
    const Sender own(at);
    for (uint32_t i = 0; i < 40; ++i) own.send({i}, 0, kUnknownId);
    for (;;) pause();  // others have to write what is left
  }
  EXPECT_TRUE(eventually([&] { return receiver.counters().unknown_id == 40; }));
  kill(child, SIGKILL);
  waitpid(child, nullptr, 0);
}

TEST(Bus, ExitWritesWhatSendsHaveLeftAndWaitsNoLongerThanASend) {
  for (uint32_t timeout_ms : {0u, kLong}) {
    Receiver receiver(endpoint("ipc"), false);
    static int exiting[2];
    ASSERT_EQ(pipe(exiting), 0);
    const std::string at = endpoint("ipc");
    const pid_t child = fork();
    if (child == 0) {
      const Sender sender(at, {timeout_ms, 256, 16 << 20});
      std::vector<uint8_t> large(4 << 20);  // more than a socket takes
      DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(large.data()), kId, 4 << 20};
      int32_t status = KELVODRIX_OK;
      for (uint32_t i = 1; i <= 40; ++i) status |= sender.send({i});
      status |= DRIX_SendMsg(sender.handle, &message, 1);
      atexit([] { close(exiting[1]); });
      exit(status == KELVODRIX_OK ? 0 : 1);
    }
    close(exiting[1]);
    char none;
    int status = -1;
    EXPECT_EQ(read(exiting[0], &none, 1), 0);  // it exits, and has room for no more
    if (timeout_ms == 0) waitpid(child, &status, 0);
    receiver.start();
    if (timeout_ms != 0) waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const uint64_t whole = timeout_ms == 0 ? 40 : 41;
    EXPECT_TRUE(eventually([&] { return receiver.counters().delivered == whole; }));
    receiver.stop();
    receiver.numbers.resize(40);
    EXPECT_EQ(receiver.numbers, range(1, 41));
    close(exiting[0]);
  }
}

TEST_P(Transport, CountsWhatBecameOfEachMessage) {
  Receiver receiver(at);
  const Sender sender(at);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, nullptr, release), KELVODRIX_ERR_INVALID);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode, nullptr), KELVODRIX_ERR_INVALID);
  EXPECT_EQ(sender.send({1, kThrow, 3}), KELVODRIX_OK);
  EXPECT_EQ(sender.send({4, 5}, 0, kUnknownId), KELVODRIX_OK);
  DrixSendDescriptor rejected = {0, kId, 0};
  EXPECT_EQ(DRIX_SendMsg(sender.handle, &rejected, 1), KELVODRIX_OK);
  const auto fill = [](const uint8_t *, uint32_t, void *to) {
    return std::memset(to, 0xFF, KELVODRIX_MAX_RECORD_BYTES) == to ? KELVODRIX_MAX_RECORD_BYTES : 0;
  };
  static std::atomic<uint32_t> seen;
  const auto note_size = [](void *, uint32_t, const void *, uint32_t size) { seen = size; };
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode, release), KELVODRIX_OK);
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, fill, [](void *) {}), KELVODRIX_OK);  // the latest counts
  for (kelvodrix_subscriber subscriber : {+note_size, kelvodrix_subscriber()}) {
    EXPECT_EQ(kelvodrix_subscribe(receiver.receiver, kOtherId, subscriber, nullptr), KELVODRIX_OK);
    EXPECT_EQ(sender.send({6}, 0, kOtherId), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), kAllDelivered);
  }
  EXPECT_EQ(seen, KELVODRIX_MAX_RECORD_BYTES);
  EXPECT_EQ(DRIX_SendMsg(sender.handle, &rejected, 1), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  const kelvodrix_counters counters = receiver.counters(), expected = {6, 9, 5, 1, 2, 1, 0};
  EXPECT_EQ(std::memcmp(&counters, &expected, sizeof(expected)), 0);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (Numbers{1, kThrow, 3, 0, 0}));  // the rejected ones read as zero
}

TEST_P(Transport, RegistrationsHoldFromTheNextMessageOn) {
  Receiver receiver(at);
  const Sender sender(at);
  static std::atomic<uint64_t> seen;
  seen = 0;
  const auto other = [](void *context, uint32_t id, const void *of, uint32_t) {
    seen = seen * 10 + static_cast<const Record *>(of)->number;
    if (static_cast<const Record *>(of)->number == 3)
      kelvodrix_subscribe(static_cast<kelvodrix_receiver *>(context), id, nullptr, nullptr);
  };
  EXPECT_EQ(DRIX_RegIDLFuncHook(kOtherId, decode, release), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_subscribe(receiver.receiver, kOtherId, other, receiver.receiver), KELVODRIX_OK);
  receiver.on_number = [](uint32_t number) {
    const auto decode_nine = [](const uint8_t *, uint32_t, void *to) -> uint32_t {
      *static_cast<Record *>(to) = {9, nullptr};
      return sizeof(Record);
    };
    if (number == 5) DRIX_RegIDLFuncHook(kId, decode_nine, release);
  };
  // One frame: each number with its type.
  std::vector<std::pair<uint32_t, uint32_t>> sent = {{kId, 1},        {kOtherId, 2}, {kOtherId, 3}, {kOtherId, 4},
                                                     {kUnknownId, 4}, {kId, 5},      {kId, 6}};
  std::vector<DrixSendDescriptor> messages;
  for (auto &[id, number] : sent) messages.push_back({reinterpret_cast<uintptr_t>(&number), id, sizeof(number)});
  EXPECT_EQ(DRIX_SendMsg(sender.handle, messages.data(), static_cast<uint32_t>(messages.size())), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  const kelvodrix_counters counters = receiver.counters(), expected = {1, 7, 5, 0, 1, 1, 0};
  EXPECT_EQ(std::memcmp(&counters, &expected, sizeof(expected)), 0);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (Numbers{1, 5, 9}));
  EXPECT_EQ(seen, 23u);
}

TEST_P(Direct, SubscriberMayEndItsThread) {
  const bool at_server = at.starts_with("nats");  // where what comes after the frame is not lost
  for (uint32_t end : {kExit, kCancel}) {
    Receiver receiver(at, false);
    Sender sender(at);
    for (const Numbers &numbers : {Numbers{1}, Numbers{2, end, 3}, Numbers{4}})
      EXPECT_EQ(sender.send(numbers), KELVODRIX_OK);
    receiver.on_number = [&](uint32_t number) { number == 1 ? kelvodrix_stop(receiver.receiver) : void(); };
    for (int run = 0; run < 2; ++run, receiver.loop.join()) receiver.start();  // stopped after 1, ended in the next
    EXPECT_EQ(live_records, 0);
    const Undelivered open(at_server ? KELVODRIX_ERR_PENDING : KELVODRIX_ERR_LOST, 4);
    EXPECT_TRUE(eventually([&] { return sender.flush(at_server ? 1 : kLong) == open; }));
    EXPECT_EQ(receiver.counters().failed, 1u);
    receiver.start();  // in another thread
    EXPECT_EQ(sender.send({5}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, at_server ? 3 : 4));
    receiver.stop();
    EXPECT_EQ(receiver.numbers, at_server ? (Numbers{1, 2, end, 4, 5}) : (Numbers{1, 2, end, 5}));
  }
}

// A peer of an ipc receiver, or in its place, that speaks raw bytes.
struct RawPeer {
  explicit RawPeer(bool as_receiver = false) {
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto *to = reinterpret_cast<const sockaddr *>(&address);
    if (as_receiver) unlink(path.c_str());  // of a test that was killed
    EXPECT_EQ((as_receiver ? bind : connect)(fd, to, sizeof(address)), 0) << strerror(errno);
    EXPECT_EQ(as_receiver ? listen(fd, 1) : 0, 0);
  }
  ~RawPeer() { close(fd); }
  void accept() {
    close(std::exchange(fd, ::accept(fd, nullptr, nullptr)));
    unlink(path.c_str());
  }
  // The other end may hang up at any time.
  void send(std::string_view bytes) const {
    ssize_t count = 1;
    for (size_t at = 0; at < bytes.size() && count > 0; at += static_cast<size_t>(count))
      count = ::send(fd, &bytes[at], bytes.size() - at, MSG_NOSIGNAL);
  }
  // As many bytes, less at the end of the connection.
  std::string receive(size_t size) const {
    std::string bytes(size, '\0');
    const ssize_t count = recv(fd, bytes.data(), size, MSG_WAITALL);
    return bytes.substr(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }
  // Whether the other end has taken in all that was sent.
  bool taken() const {
    int left = 1;
    return ioctl(fd, SIOCOUTQ, &left) == 0 && left == 0;
  }
  const std::string path = endpoint("ipc").substr(6);
  int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

std::string little_endian(uint64_t value, size_t size) {
  std::string bytes;
  for (; size != 0; --size, value >>= 8) bytes += static_cast<char>(value);
  return bytes;
}

std::string frame(uint64_t number, const std::string &messages, uint64_t count = 1) {
  return little_endian(20 + messages.size(), 4) + "KDR2" + little_endian(number, 8) + little_endian(count, 4) +
         messages;
}

std::string message(uint32_t number, uint32_t id = kId) {
  return little_endian(id, 4) + little_endian(4, 4) + std::string(reinterpret_cast<const char *>(&number), 4);
}

TEST(Bus, HandlesWhatIsGoodAndDisconnectsWhoeverSendsAnythingMalformed) {
  Receiver receiver(endpoint("ipc"));
  const std::string good = frame(3, message(1));
  std::vector<std::string> bad = {frame(3, message(1) + '\0'), frame(3, ""), frame(3, message(1), 2),
                                  frame(3, message(1).substr(0, 11)), frame(2, message(2)), frame(4, message(2)),
                                  little_endian(19, 4), little_endian((16 << 20) + 1, 4), std::string(4, '\xFF'),
                                  // Each of these would be a line in a decoder's log.
                                  frame(3, std::string(65537 * 8, '\0'), 65537),
                                  frame(3, std::string((16 << 20) - 24, '\0'), (2 << 20) - 3)};
  for (size_t at = 4; at < 20; ++at) {
    bad.push_back(good);
    bad.back()[at] ^= '\x80';
  }
  std::string many;
  for (uint32_t i = 1; i <= 400; ++i) many += frame(i, message(i));
  receiver.on_number = [](uint32_t) { std::this_thread::sleep_for(std::chrono::microseconds(100)); };
  RawPeer().send(many);  // and hangs up
  EXPECT_TRUE(eventually([&] { return receiver.counters().delivered == 400; }));
  size_t handled = 0;
  for (const std::string &third : bad) {
    RawPeer peer, cut_short;
    cut_short.send(good.substr(0, handled++ % good.size()));  // ends without having said anything
    for (char byte : frame(1, message(0)) + frame(2, message(0))) peer.send({&byte, 1});
    for (std::string last; last != little_endian(2, 8);) ASSERT_NE(last = peer.receive(8), "");
    peer.send(third);
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_EQ(receiver.counters().malformed, handled);
  }
  EXPECT_EQ(receiver.counters().messages, 400 + 2 * handled);
}

TEST(Bus, HoldsOneFrameOfAConnectionAndNoMoreThanThat) {
  constexpr size_t kMiB = 1 << 20, kPeers = 3;
  Receiver receiver(endpoint("ipc"));
  const std::string large((16 << 20) - 28, '\0');
  const std::string whole = frame(1, little_endian(kUnknownId, 4) + little_endian(large.size(), 4) + large);
  const std::string_view first = std::string_view(whole).substr(0, 3);
  {
    const Sender sender(endpoint("ipc"), {kLong, 256, 16 << 20});
    const size_t before = heap_bytes;
    DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(large.data()), kUnknownId, 12 << 20};
    EXPECT_EQ(DRIX_SendMsg(sender.handle, &message, 1), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_TRUE(eventually([&] { return heap_bytes < before + 2 * kMiB; }));  // nor does the sender
  }
  const RawPeer peers[kPeers];
  const size_t before = heap_bytes;
  heap_peak = before;
  for (const RawPeer &peer : peers) {
    peer.send(first);
    EXPECT_TRUE(eventually([&] { return peer.taken(); }));
    peer.send(std::string_view(whole).substr(first.size(), whole.size() - first.size() - 1));
    EXPECT_TRUE(eventually([&] { return peer.taken(); }));
  }
  for (const RawPeer &peer : peers) {
    peer.send(whole.back() + std::string(first));
    EXPECT_EQ(peer.receive(8), little_endian(1, 8));
  }
  EXPECT_TRUE(eventually([&] { return heap_bytes < before + kMiB; }));
  EXPECT_LT(heap_peak, before + kPeers * 16 * kMiB + kMiB);
}

TEST(Bus, SenderBelievesOnlyGoodAcknowledgements) {
  {
    RawPeer peer(true);
    const Sender sender(endpoint("ipc"), {kLong, 256, 16 << 20});
    const std::vector<uint8_t> large(12 << 20);
    DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(large.data()), kId, 12 << 20};
    EXPECT_EQ(sender.send({1}), KELVODRIX_OK);
    EXPECT_EQ(DRIX_SendMsg(sender.handle, &message, 1), KELVODRIX_OK);
    peer.accept();
    peer.send(little_endian(1, 8) + little_endian(2, 8));  // of which it cannot have seen the end
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 1));
  }
  for (const std::string &bad :
       {little_endian(0, 8), little_endian(2, 8), std::string(8, '\xFF'), little_endian(3, 7), std::string()}) {
    RawPeer peer(true);
    Sender sender(endpoint("ipc"));
    EXPECT_EQ(sender.send({1, 2}), KELVODRIX_OK);
    EXPECT_EQ(sender.send({3, 4, 5}), KELVODRIX_OK);
    peer.accept();
    EXPECT_EQ(peer.receive(44 + 56).substr(8, 8), little_endian(1, 8));
    peer.send(little_endian(1, 8));
    EXPECT_TRUE(eventually([&] { return sender.flush(1) == Undelivered(KELVODRIX_ERR_PENDING, 3); }));
    peer.send(little_endian(2, 8));
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(sender.send({6}), KELVODRIX_OK);
    peer.send(bad.empty() ? little_endian(3, 8) : bad);
    EXPECT_EQ(sender.flush(), bad.empty() ? kAllDelivered : Undelivered(KELVODRIX_ERR_LOST, 1));
  }
}

TEST(Bus, SendThatFindsTheReceiverGoneCountsForNothing) {
  for (int i = 0; i < 50; ++i) {  // mostly before the sender has looked
    RawPeer peer(true);
    const Sender sender(endpoint("ipc"), {0, 256, 1 << 20});
    EXPECT_EQ(sender.send({1}), KELVODRIX_OK);
    peer.accept();
    if (i % 2 == 0) peer.send(little_endian(1, 8));
    shutdown(peer.fd, SHUT_RDWR);
    EXPECT_EQ(sender.send({2, 3}), KELVODRIX_ERR_NO_RECEIVER);
    EXPECT_EQ(sender.flush(), i % 2 == 0 ? kAllDelivered : Undelivered(KELVODRIX_ERR_LOST, 1));
  }
}

TEST_P(Transport, LeavesSignalsToTheProcess) {
  const Receiver receiver(at, false);
  const Sender sender(at);
  EXPECT_EQ(sender.send({1}), KELVODRIX_OK);
  sigset_t user, former, pending;
  sigemptyset(&user);
  sigaddset(&user, SIGUSR1);
  pthread_sigmask(SIG_BLOCK, &user, &former);
  kill(getpid(), SIGUSR1);
  usleep(50000);  // for another thread to take it, if one does
  sigpending(&pending);
  EXPECT_TRUE(sigismember(&pending, SIGUSR1));  // and has not ended the process through another thread
  int signal = 0;
  sigwait(&user, &signal);
  pthread_sigmask(SIG_SETMASK, &former, nullptr);
}

TEST(Bus, SurvivesTheLimitOfOpenFiles) {
  Receiver receiver(endpoint("ipc"), false);
  Sender sender(endpoint("ipc")), late(endpoint("ipc"));
  EXPECT_EQ(sender.send({1}), KELVODRIX_OK);  // connected, and not accepted
  rlimit former;
  getrlimit(RLIMIT_NOFILE, &former);
  const rlimit low = {64, former.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  std::vector<int> used;
  for (int fd; (fd = dup(0)) >= 0;) used.push_back(fd);
  receiver.start();
  EXPECT_FALSE(receiver.spins());
  EXPECT_EQ(sender.flush(0), Undelivered(KELVODRIX_ERR_PENDING, 1));
  EXPECT_EQ(late.send({2}), KELVODRIX_ERR_SYSTEM);
  EXPECT_EQ(create(endpoint("ipc", 1)), KELVODRIX_ERR_SYSTEM);
  for (int fd : used) close(fd);
  setrlimit(RLIMIT_NOFILE, &former);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(late.send({2}), KELVODRIX_OK);
  EXPECT_EQ(late.flush(), kAllDelivered);
}

TEST(Bus, RefusesEndpointsThatCannotServe) {
  const std::string folder = testing::TempDir() + "kelvodrix_folder_" + std::to_string(getpid());
  const std::string file = folder + "_file", own = "/tmp/kelvodrix-" + std::to_string(geteuid());
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  std::ofstream(file) << "precious";
  Receiver receiver(endpoint("ipc")), inside(endpoint("inproc"));
  Receiver named("test" + std::to_string(getpid()));
  EXPECT_EQ(chmod(own.c_str(), 0711), 0);
  const std::map<int32_t, std::vector<std::string>> cases = {
      {KELVODRIX_ERR_BIND, {folder + "/missing/x", file}},
      {KELVODRIX_ERR_IN_USE, {endpoint("ipc"), endpoint("inproc")}},
      {KELVODRIX_ERR_PATH, {"ipc:///tmp/" + std::string(103, 'x')}},
      {KELVODRIX_ERR_FOLDER, {"name"}},
      {KELVODRIX_ERR_ENDPOINT, {"ipc://", "inproc://", "", "pgm://x", "tcp://127.0.0.1:1234"}},
#ifndef WITH_NATS
      {KELVODRIX_ERR_TRANSPORT, {"nats://127.0.0.1:1/x", "tls-stream://127.0.0.1:1/x"}},
#endif
  };
  for (const auto &[status, endpoints] : cases)
    for (const std::string &each : endpoints) {
      uint32_t handle = 0;
      const bool can_be_sent_to = status == KELVODRIX_ERR_BIND || status == KELVODRIX_ERR_IN_USE;
      EXPECT_EQ(create(each), status) << each;
      EXPECT_STRNE(kelvodrix_strerror(status), kelvodrix_strerror(-1));
      EXPECT_EQ(kelvodrix_open(each.c_str(), nullptr, &handle), can_be_sent_to ? KELVODRIX_OK : status) << each;
      kelvodrix_close(handle, 0, nullptr);
    }
  EXPECT_EQ(chmod(own.c_str(), 0700), 0);
  EXPECT_EQ(remove(file.c_str()), 0);  // nothing has replaced it
  EXPECT_EQ(rmdir(folder.c_str()), 0);
}

TEST(Bus, IpcIsForItsUserAndLeavesNoFilesBehind) {
  const std::string path = endpoint("ipc").substr(6);
  struct stat found;
  {
    Receiver receiver(path);
    ASSERT_EQ(stat(path.c_str(), &found), 0);
    EXPECT_EQ(found.st_mode & 0777, 0600u);
    if (geteuid() == 0) {  // or else there is no other user at hand
      ASSERT_EQ(chmod(path.c_str(), 0666), 0);
      std::thread([] {
        ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);  // of this thread, not of the receiver's
        const RawPeer stranger;
        stranger.send(frame(1, message(1)));
        EXPECT_EQ(stranger.receive(8), "");
      }).join();
      EXPECT_EQ(receiver.counters().messages, 0u);
    }
    unlink(path.c_str());  // the lock still holds
    EXPECT_EQ(create(path), KELVODRIX_ERR_IN_USE);
  }
  auto first = std::make_unique<Receiver>(path);
  unlink(path.c_str());
  unlink((path + ".lock").c_str());
  {
    const Receiver second(path);
    first.reset();  // leaves the second's alone
    EXPECT_EQ(stat((path + ".lock").c_str(), &found), 0);
    const Sender sender(path);
    EXPECT_EQ(sender.send({1}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(create(path), KELVODRIX_ERR_IN_USE);
  }
  EXPECT_NE(stat(path.c_str(), &found), 0);
  EXPECT_NE(stat((path + ".lock").c_str(), &found), 0);
}

TEST_P(Transport, StopsFromEverywhere) {
  Receiver receiver(at);
  receiver.stop();                    // from another thread
  kelvodrix_stop(receiver.receiver);  // and before it runs
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
  stopped_by_signal = receiver.receiver;
  signal(SIGALRM, [](int) { kelvodrix_stop(stopped_by_signal); });
  ualarm(20000, 0);
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
  signal(SIGALRM, SIG_DFL);

  Sender sender(at);
  receiver.on_number = [&](uint32_t number) {
    EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_ERR_BUSY);
    EXPECT_EQ(kelvodrix_receiver_destroy(receiver.receiver), KELVODRIX_ERR_BUSY);
    if (number == 1) kelvodrix_stop(receiver.receiver);
  };
  EXPECT_EQ(sender.send({1, 2}), KELVODRIX_OK);
  sender.flush(20);  // or they may share a frame
  EXPECT_EQ(sender.send({3}), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
  EXPECT_EQ(receiver.numbers, range(1, 3));  // the whole frame, and no more
}

TEST_P(Transport, LateStopEndsNoFurtherLoopAndLeavesItAsleep) {
  Receiver receiver(at);
  const Sender sender(at);
  Gate late;
  std::thread stopping([&] {
    gate = &late;
    kelvodrix_stop(receiver.receiver);
  });
  ASSERT_TRUE(eventually([&] { return late.reached.load(); }));
  EXPECT_EQ(sender.send({1}), KELVODRIX_OK);  // wakes it up
  receiver.loop.join();
  late.open = true;
  stopping.join();
  receiver.start();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_FALSE(receiver.spins());
}

#ifdef WITH_NATS
class BusCluster : public testing::Test {
 protected:
  void SetUp() override {
    if (!NatsServer::installed()) GTEST_SKIP() << "there is no nats-server (Debian: nats-server)";
  }
};

// A client that speaks the server's protocol by hand.
struct RawClient {
  struct Message {
    std::string subject, reply, bytes;
  };
  explicit RawClient(const std::string &subject) {
    send("CONNECT {\"verbose\":false,\"headers\":true}\r\nSUB " + subject + " 1\r\nPING\r\n");
    while (line() != "PONG") {
    }
  }
  ~RawClient() { close(fd); }
  void publish(const std::string &subject, const std::string &reply, const std::string &bytes) const {
    send("PUB " + subject + ' ' + reply + ' ' + std::to_string(bytes.size()) + "\r\n" + bytes + "\r\n");
  }
  void store(const std::string &subject, const std::string &id, const std::string &bytes) const {
    const std::string header = "NATS/1.0\r\nNats-Msg-Id: " + id + "\r\n\r\n";
    send("HPUB " + subject + ' ' + std::to_string(header.size()) + ' ' + std::to_string(header.size() + bytes.size()) +
         "\r\n" + header + bytes + "\r\n");
  }
  Message next() {
    std::vector<std::string> words;
    while (words.empty() || words[0] != "MSG") {
      std::istringstream stream(line());
      words.assign(std::istream_iterator<std::string>(stream), {});
    }
    return {words[1], words.size() == 5 ? words[3] : "", take(std::stoul(words.back()) + 2)};
  }
  // Answers whoever asks meanwhile.
  Message next_frame(const std::string &instance) {
    for (;;) {
      Message got = next();
      if (!got.subject.ends_with(".hello")) return got;
      publish(got.reply, "", instance);
    }
  }
  // Whether such has come.
  bool has(const std::string &text) {
    char chunk[4096];
    const ssize_t count = recv(fd, chunk, sizeof(chunk), MSG_DONTWAIT);
    in.append(chunk, static_cast<size_t>(std::max<ssize_t>(count, 0)));
    return in.find(text) != in.npos;
  }
  void send(const std::string &bytes) const {
    EXPECT_EQ(::send(fd, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
  }
  std::string line() {
    while (in.find('\n') == in.npos) receive();
    return take(in.find('\n') + 1);
  }
  // Without the end of the line.
  std::string take(size_t size) {
    while (in.size() < size) receive();
    const std::string taken = in.substr(0, size - 2);
    in.erase(0, size);
    return taken;
  }
  void receive() {
    char chunk[4096];
    const ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
    ASSERT_GT(count, 0);
    in.append(chunk, static_cast<size_t>(count));
  }
  const int fd = server().connected();
  std::string in;
};

// What somebody sees who looks on.
struct Tap {
  explicit Tap(const std::string &at, Numbers ids = {}, bool follows = false) {
    const kelvodrix_tap_options options = {ids.data(), static_cast<uint32_t>(ids.size()), follows, 0};
    EXPECT_EQ(kelvodrix_tap_open(at.c_str(), &options, &tap), KELVODRIX_OK);
  }
  ~Tap() { kelvodrix_tap_close(tap); }
  Numbers read(size_t count = SIZE_MAX) const {
    Numbers numbers;
    kelvodrix_frame seen;
    while (numbers.size() < count && kelvodrix_tap_next(tap, kLong, &seen) == KELVODRIX_OK && seen.count != 0) {
      for (uint32_t i = 0; i < seen.count; ++i) {
        numbers.push_back(0);
        std::memcpy(&numbers.back(), reinterpret_cast<const void *>(seen.messages[i].address), seen.messages[i].length);
      }
    }
    return numbers;
  }
  uint64_t malformed() const {
    kelvodrix_tap_counters counters = {};
    kelvodrix_tap_get_counters(tap, &counters);
    return counters.malformed;
  }
  kelvodrix_tap *tap = nullptr;
};

std::string receipt(const std::string &instance, uint64_t first, uint64_t last) {
  return instance + little_endian(first, 8) + little_endian(last, 8);
}

TEST_F(BusCluster, SubjectsTellTheIdAndATapIsNoReceiver) {
  const std::string at = endpoint("nats"), subject = "drix." + at.substr(at.rfind('/') + 1) + ".m.";
  RawClient tap("drix.*.m.>");
  const Tap all(server().address() + "/*"), others(at, {kOtherId});
  tap.publish(subject + "mixed", "", std::string(40, 'x'));
  const Sender impatient(at, {50, 4, 1000});
  EXPECT_EQ(impatient.send({1}), KELVODRIX_ERR_NO_RECEIVER);
  EXPECT_EQ(impatient.flush(), kAllDelivered);
  auto receiver = std::make_unique<Receiver>(at);
  const Sender sender(at);
  uint32_t number = 1;
  DrixSendDescriptor mixed[] = {{reinterpret_cast<uintptr_t>(&number), kId, 4}, {0, kOtherId, 0}};
  EXPECT_EQ(sender.send({1, 2}), KELVODRIX_OK);
  EXPECT_EQ(sender.send({3}, 0, kOtherId), KELVODRIX_OK);
  EXPECT_EQ(DRIX_SendMsg(sender.handle, mixed, 2), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(all.read(5), (Numbers{1, 2, 3, 1, 0}));
  EXPECT_EQ(others.read(3), (Numbers{3, 1, 0}));
  EXPECT_EQ(all.malformed() + others.malformed(), 2u);
  for (const char *last : {"mixed", "cc4e6bc6", "00000007", "mixed"}) EXPECT_EQ(tap.next().subject, subject + last);
  receiver.reset();
  receiver = std::make_unique<Receiver>(at);
  usleep(1100000);  // so long a silence makes the sender ask who is there
  EXPECT_EQ(sender.send({4}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  // Another server takes no frame as large.
  const NatsServer small("max_payload: 1000\n");
  Receiver elsewhere(small.address() + "/small", false);
  const Sender large(small.address() + "/small");
  EXPECT_EQ(large.send(Numbers(82)), KELVODRIX_ERR_TOO_BIG);
  EXPECT_EQ(large.send(Numbers(81)), KELVODRIX_OK);
  for (uint32_t i = 0; i < 100; ++i) EXPECT_EQ(large.send(Numbers(30)), KELVODRIX_OK);  // two do not fit in one
  elsewhere.start();
  EXPECT_EQ(large.flush(), kAllDelivered);
}

TEST_F(BusCluster, HandlesGoodFramesAndAcknowledgesOnlyThose) {
  const std::string at = endpoint("nats"), subject = "drix." + at.substr(at.rfind('/') + 1) + ".";
  testing::internal::CaptureStderr();
  Receiver receiver(at);
  RawClient peer("peer.*");
  const auto send = [&](const std::string &bytes) { peer.publish(subject + "m.cc4e6bc6", "peer.1", bytes); };
  peer.publish(subject + "hello", "peer.1", std::string(16, '\0'));
  const std::string instance = peer.next().bytes, good = instance + frame(1, message(1));
  const std::string whole = instance + frame(9, message(9));  // shows if it is handled when spoiled
  std::vector<std::string> bad = {
      "", instance, whole.substr(0, 27), whole.substr(0, 39), whole + '\0', instance + frame(9, message(9), 2)};
  for (size_t byte : std::initializer_list<size_t>{8, 9, 12, 13, 14, 15, 24, 27}) {
    bad.push_back(whole);
    bad.back()[byte] ^= '\x01';
  }
  for (const std::string &behind : {whole.substr(8, 19), whole.substr(8, 31), whole.substr(8) + '\0', whole})
    bad.push_back(whole + behind);
  for (const std::string &each : bad) send(each);
  peer.publish(subject + "m.cc4e6bc6", "", whole);  // nobody to be answered
  std::string other = good;
  other[0] ^= '\x01';
  send(other);  // is for a receiver of before
  EXPECT_EQ(peer.next().bytes, instance);
  send(good);
  EXPECT_EQ(peer.next().bytes, receipt(instance, 1, 1));
  send(good);
  send(instance + frame(4, message(4)));  // two are missing
  EXPECT_EQ(peer.next().bytes, receipt(instance, 4, 4));
  peer.publish(subject + "hello", "peer.1", instance + little_endian(6, 8));
  EXPECT_EQ(peer.next().bytes, instance);
  EXPECT_EQ(peer.next().bytes, receipt(instance, 7, 6));
  EXPECT_EQ(create(at), KELVODRIX_ERR_IN_USE);
  receiver.on_number = [&](uint32_t number) { number == 8 ? kelvodrix_stop(receiver.receiver) : void(); };
  send(instance + frame(7, message(7)) + frame(8, message(8)) + frame(9, message(10)));
  EXPECT_EQ(peer.next().bytes, receipt(instance, 7, 8));
  receiver.loop.join();
  receiver.start();  // goes on behind the frame that has stopped it
  EXPECT_EQ(peer.next().bytes, receipt(instance, 9, 9));
  peer.publish(subject + "m.cc4e6bc6", "peer.2", instance + frame(1, message(11)) + frame(2, message(12)));
  EXPECT_EQ(peer.next().bytes, receipt(instance, 1, 2));  // another sender
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (Numbers{1, 4, 7, 8, 10, 11, 12}));
  EXPECT_EQ(receiver.counters().malformed, bad.size() + 2);
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

TEST_F(BusCluster, SenderBelievesOnlyGoodAcknowledgements) {
  const std::string at = endpoint("nats"), subject = "drix." + at.substr(at.rfind('/') + 1) + ".";
  const std::string first = little_endian(77, 8), second = little_endian(78, 8);
  RawClient peer(subject + ">");
  const Sender sender(at, {kLong, 4, 1000});
  std::thread sending([&] {
    for (uint32_t i = 1; i <= 4; ++i) EXPECT_EQ(sender.send({i}), KELVODRIX_OK);
  });
  RawClient::Message got;
  const auto next_frame = [&](const std::string &instance) { got = peer.next_frame(instance); };
  for (uint64_t i = 1; i <= 4; ++i) {
    next_frame(first);
    EXPECT_EQ(got.bytes, first + frame(i, message(static_cast<uint32_t>(i))));
  }
  sending.join();
  for (const std::string &bad :
       {receipt(second, 1, 4), receipt(first, 0, 4), receipt(first, 1, 5), receipt(first, 7, 4),
        receipt(first, 1, 4) + '\0', receipt(first, 1, 4).substr(1), std::string()})
    peer.publish(got.reply, "", bad);
  peer.publish(got.reply, "", receipt(first, 2, 2));  // the first was not there
  EXPECT_TRUE(eventually([&] { return sender.flush(1).second == 3; }));
  EXPECT_EQ(sender.flush(50), Undelivered(KELVODRIX_ERR_PENDING, 3));
  while (got.subject != subject + "hello") got = peer.next();
  EXPECT_EQ(got.bytes, first + little_endian(4, 8));  // a question after them
  for (uint32_t i = 5; i <= 6; ++i) EXPECT_EQ(sender.send({i}), KELVODRIX_OK);
  for (int i = 0; i < 2; ++i) next_frame(first);
  std::thread waiting([&] { EXPECT_EQ(sender.send({7}), KELVODRIX_OK); });  // for room, which a restart makes
  next_frame(second);
  EXPECT_EQ(got.bytes, second + frame(7, message(7)));
  waiting.join();
  peer.publish(got.reply, "", receipt(second, 7, 7));
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 5));
  EXPECT_EQ(sender.send({8}), KELVODRIX_OK);
  next_frame(second);
  shutdown(peer.fd, SHUT_RDWR);  // and nobody comes after it
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 6));
}

TEST_F(BusCluster, FramesThatAreUnderWayGoTogetherAndKeepTheirOrder) {
  const std::string at = endpoint("nats"), subject = "drix." + at.substr(at.rfind('/') + 1) + ".m.";
  const std::string instance = little_endian(77, 8);
  RawClient peer("drix." + at.substr(at.rfind('/') + 1) + ".>");
  const Tap tap(at);
  const Sender sender(at, {kLong, 65536, 16 << 20});
  const auto id = [](uint32_t i) { return i % 500 < 3 ? kOtherId : kId; };
  std::thread sending([&] {
    for (uint32_t i = 1; i <= 4000; ++i) EXPECT_EQ(sender.send({i}, 0, id(i)), KELVODRIX_OK);
    EXPECT_EQ(kelvodrix_close(sender.handle, 0, nullptr), KELVODRIX_ERR_PENDING);  // leaves nothing behind
  });
  uint32_t next = 1, messages = 0;
  for (; next <= 4000; ++messages) {
    const RawClient::Message got = peer.next_frame(instance);
    EXPECT_LE(got.bytes.size(), 30u << 10);
    std::string frames = instance;
    for (const uint32_t first = next; next <= 4000 && frames.size() < got.bytes.size() && id(next) == id(first); ++next)
      frames += frame(next, message(next, id(next)));
    ASSERT_EQ(got.bytes, frames);
    EXPECT_EQ(got.subject, subject + (id(next - 1) == kId ? "cc4e6bc6" : "00000007"));
  }
  sending.join();
  EXPECT_LT(messages, 1000u);
  EXPECT_EQ(tap.read(4000), range(1, 4001));
}

// Between clients and the server: may swallow what goes one way, and end all connections.
struct Proxy {
  enum Way { kNone, kToServer, kFromServer };
  Proxy() {
    sockaddr_in address = {AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof(address);
    EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr *>(&address), size) + listen(listener, 8), 0);
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &size);
    at = "nats-stream://127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    thread = std::thread([this] { run(); });
  }
  ~Proxy() {
    done = true;
    thread.join();
    close(listener);
  }
  // Until something was swallowed and so much more besides, from now on; then all connect again.
  void swallow(Way which, const std::function<bool()> &enough) {
    swallowed = 0;
    way = which;
    EXPECT_TRUE(eventually([&] { return swallowed != 0 && enough(); }));
    way = kNone;
  }
  void run() {
    std::vector<pollfd> fds = {{listener, POLLIN, 0}};  // and then pairs: the client's and the server's
    std::vector<char> chunk(1 << 16);
    const auto end = [&] {
      for (size_t i = 1; i < fds.size(); ++i) close(fds[i].fd);
      fds.resize(1);
    };
    for (Way before = kNone; !done; before = way) {
      if (before != kNone && way == kNone) end();
      poll(fds.data(), fds.size(), 5);
      for (size_t i = 1; i < fds.size(); ++i) {
        if (fds[i].revents == 0) continue;
        const bool to_server = i % 2 != 0;
        const ssize_t count = recv(fds[i].fd, chunk.data(), chunk.size(), MSG_DONTWAIT);
        if (count <= 0 && errno != EAGAIN) shutdown(fds[to_server ? i + 1 : i - 1].fd, SHUT_RDWR), fds[i].events = 0;
        if (count <= 0) continue;
        if (way == (to_server ? kToServer : kFromServer))
          swallowed += static_cast<size_t>(count);
        else
          ::send(fds[to_server ? i + 1 : i - 1].fd, chunk.data(), static_cast<size_t>(count), MSG_NOSIGNAL);
      }
      if (fds[0].revents == 0) continue;
      fds.push_back({accept(listener, nullptr, nullptr), POLLIN, 0});
      fds.push_back({server().connected(), POLLIN, 0});
    }
    end();
  }
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  std::string at;
  std::atomic<Way> way = kNone;
  std::atomic<size_t> swallowed = 0;
  std::atomic<bool> done = false;
  std::thread thread;
};

// Of the first such member in a server's answer.
std::string value_of(const std::string &member, const std::string &answer) {
  const std::string word = '"' + member + "\":";
  const std::size_t at = answer.find(word);
  EXPECT_NE(at, answer.npos) << answer;
  const std::string value = answer.substr(std::min(at, answer.size() - word.size()) + word.size());
  return value.starts_with('"') ? value.substr(1, value.find('"', 1) - 1) : value.substr(0, value.find(','));
}

class BusClusterStream : public BusCluster {
 protected:
  const std::string at = NatsServer::installed() ? endpoint("nats-stream", ++used_names) : "",
                    name = at.substr(at.rfind('/'));
};

TEST_F(BusClusterStream, KeepsATableForWhoComesLateAndCountsWhatReceiversHaveNotHandled) {
  const Sender sender(at);
  EXPECT_EQ(kelvodrix_checkpoint(sender.handle), KELVODRIX_OK);  // of nothing
  EXPECT_EQ(sender.send({1, 2}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  auto first = std::make_unique<Receiver>(at + "/first"), late = std::make_unique<Receiver>(at + "/late?from=now");
  EXPECT_EQ(create(at + "/first"), KELVODRIX_ERR_IN_USE);
  EXPECT_EQ(sender.send({3}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first->stop();
  EXPECT_EQ(first->numbers, range(1, 4));
  for (uint32_t i = 4; i < 7; ++i) {
    EXPECT_EQ(sender.send({i, i}), KELVODRIX_OK);
    EXPECT_TRUE(eventually([&] { return late->counters().delivered == 2 * i - 5; }));  // or they share a frame
  }
  EXPECT_EQ(sender.flush(200), Undelivered(KELVODRIX_ERR_PENDING, 6));
  first.reset();
  EXPECT_EQ(sender.flush(50), Undelivered(KELVODRIX_ERR_PENDING, 6));
  first = std::make_unique<Receiver>(at + "/first", false);
  first->on_number = [&](uint32_t number) {
    if (number > 5) return;
    EXPECT_GE(sender.flush(100).second, number == 4 ? 6u : 4u);
    if (number == 5) kelvodrix_stop(first->receiver);
  };
  EXPECT_EQ(kelvodrix_run(first->receiver), KELVODRIX_OK);
  EXPECT_TRUE(eventually([&] { return sender.flush(50) == Undelivered(KELVODRIX_ERR_PENDING, 2); }));
  first->start();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first->stop();
  EXPECT_EQ(first->numbers, (Numbers{4, 4, 5, 5, 6, 6}));

  Numbers all = {3, 4, 4, 5, 5, 6, 6};
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(sender.send({7}), KELVODRIX_OK);
    all.push_back(7);
  }
  EXPECT_EQ(kelvodrix_checkpoint(sender.handle), KELVODRIX_OK);
  EXPECT_EQ(sender.send({10}), KELVODRIX_OK);
  EXPECT_EQ(sender.send({11}), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_checkpoint(sender.handle), KELVODRIX_OK);
  EXPECT_EQ(sender.send({12}), KELVODRIX_OK);
  EXPECT_TRUE(
      eventually([&] { return sender.flush(50) == Undelivered(KELVODRIX_ERR_PENDING, 3); }));  // less what was purged
  first->start();
  EXPECT_EQ(sender.flush(), kAllDelivered);
  Receiver restarted(at + "/restarted?from=table");
  EXPECT_TRUE(eventually([&] { return restarted.counters().delivered == 3; }));
  EXPECT_EQ(sender.send({13}), KELVODRIX_OK);  // to the same subscription
  EXPECT_EQ(sender.flush(), kAllDelivered);
  for (Receiver *each : {first.get(), late.get(), &restarted}) each->stop();
  EXPECT_EQ(restarted.numbers, range(10, 14));
  for (uint32_t i = 10; i < 14; ++i) all.push_back(i);
  EXPECT_EQ(late->numbers, all);
  // Nobody is waited for whose key is deleted.
  EXPECT_EQ(sender.send({14}), KELVODRIX_OK);
  const RawClient peer("peer.*");
  for (const char *gone : {"first", "late", "restarted"}) {
    EXPECT_EQ(sender.flush(50), Undelivered(KELVODRIX_ERR_PENDING, 1)) << gone;
    peer.publish("$KV.drix-" + name.substr(1) + '.' + gone, "", "");
  }
  EXPECT_EQ(sender.flush(), kAllDelivered);
}

TEST_F(BusClusterStream, RefusesTheFormerWriterAndSkipsWhatIsForeign) {
  testing::internal::CaptureStderr();
  Receiver receiver(at);
  const Sender former(at), writer(at);
  EXPECT_EQ(former.send({1}), KELVODRIX_OK);
  EXPECT_EQ(former.flush(), kAllDelivered);
  EXPECT_EQ(writer.send({2}), KELVODRIX_OK);
  EXPECT_EQ(writer.flush(), kAllDelivered);
  uint64_t taken = 0;  // as it has not learnt of it; most share a frame
  for (int i = 0; i < 100; ++i) taken += former.send({3}) == KELVODRIX_OK;
  EXPECT_GT(taken, 0u);
  EXPECT_EQ(former.flush(), Undelivered(KELVODRIX_ERR_LOST, taken));
  EXPECT_EQ(former.send({5}), KELVODRIX_ERR_WRITER);
  EXPECT_EQ(kelvodrix_checkpoint(former.handle), KELVODRIX_ERR_WRITER);
  const RawClient peer("peer.*");
  const std::string whole = frame(9, message(9));
  auto live = std::make_unique<Tap>(at, Numbers{kId}, true);
  for (const std::string &bad : {std::string(), whole.substr(0, 19), whole + '\0', frame(9, message(9), 2)})
    peer.publish("drix-stream." + name.substr(1) + ".m.cc4e6bc6", "", bad);
  EXPECT_TRUE(eventually([&] { return receiver.counters().malformed == 4; }));
  for (uint32_t i = 6; i < 9; ++i) EXPECT_EQ(writer.send({i}, 0, i == 7 ? kOtherId : kId), KELVODRIX_OK);
  EXPECT_EQ(writer.flush(), kAllDelivered);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (Numbers{1, 2, 6, 8}));
  // Who looks on sees the same, however often, and leaves nothing.
  EXPECT_EQ(live->read(4), (Numbers{1, 2, 6, 8}));
  for (const Numbers &ids : {Numbers(), Numbers{kOtherId, kId}, Numbers()}) {
    const Tap tap(at, ids);
    EXPECT_EQ(tap.read(), (Numbers{1, 2, 6, 7, 8}));
    EXPECT_EQ(tap.malformed(), 4u);
  }
  EXPECT_EQ(Tap(at, {kOtherId}).read(), Numbers{7});
  live.reset();
  const std::string asked = "$JS.API.STREAM.INFO.drix-" + name.substr(1);
  EXPECT_TRUE(eventually([&] { return server().ask(asked).find("\"consumer_count\":1") != std::string::npos; }));
  const std::string said = testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
}

TEST_F(BusClusterStream, LosesNothingAndHandlesNothingTwiceWhateverConnectionsSwallow) {
  Proxy proxy;
  Receiver near(at + "/near"), far(proxy.at + name + "/far");
  const Sender sender(proxy.at + name);
  RawClient steps("$JS.API.STREAM.LEADER.STEPDOWN.>");
  uint32_t sent = 0;
  const auto send = [&](uint32_t count) {
    for (; count != 0; --count) EXPECT_EQ(sender.send({sent++}), KELVODRIX_OK);
  };
  send(100);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  for (Proxy::Way way : {Proxy::kToServer, Proxy::kFromServer})
    for (uint32_t more : {50u, 0u}) {
      const uint32_t before = sent;
      std::thread sending([&] { send(150); });
      // When answers and frames to the receiver are lost, the server has the frames.
      proxy.swallow(way, [&] { return way == Proxy::kToServer || near.counters().delivered > before; });
      sending.join();
      send(more);
      EXPECT_EQ(sender.flush(), kAllDelivered);
    }
  // Who hears nothing for long has another server lead, if the connection is not given up before.
  bool asked = false;
  for (int tries = 0; tries < 10 && !asked; ++tries) {
    send(1);
    const auto start = std::chrono::steady_clock::now();
    proxy.swallow(Proxy::kFromServer, [&] {
      asked |= steps.has("STEPDOWN.drix-" + name.substr(1));
      return asked || std::chrono::steady_clock::now() - start > std::chrono::seconds(6);
    });
    EXPECT_EQ(sender.flush(), kAllDelivered);
  }
  EXPECT_TRUE(asked);
  near.stop();
  far.stop();
  EXPECT_EQ(near.numbers, range(0, sent));
  EXPECT_EQ(far.numbers, range(0, sent));
}

TEST_F(BusClusterStream, IsBoundedAtEitherEnd) {
  const std::string settings = server().folder() + "/bounded", stream = "drix-" + name.substr(1);
  std::ofstream(settings) << "max_bytes=4000000\n";
  setenv("KELVODRIX_NATS", settings.c_str(), 1);
  auto receiver = std::make_unique<Receiver>(at, false);
  const Sender sender(at, {300, 8, 10 << 20});
  uint32_t taken = 0;
  const Numbers numbers(4096);  // 48 KiB
  int32_t status = KELVODRIX_OK;
  for (; taken < 200 && status == KELVODRIX_OK; ++taken) status = sender.send(numbers);
  EXPECT_EQ(status, KELVODRIX_ERR_FULL);
  const std::string under_way = value_of("consumer_seq", server().ask("$JS.API.CONSUMER.LIST." + stream));
  EXPECT_LT(std::stoul(under_way), 64u);  // 2 MiB and what is under way
  receiver->start();
  EXPECT_TRUE(eventually([&] { return receiver->counters().frames == taken - 1 - 8; }));  // all but the window
  EXPECT_EQ(sender.flush(100), Undelivered(KELVODRIX_ERR_PENDING, 8 * numbers.size()));
  server().ask("$JS.API.STREAM.PURGE." + stream);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(receiver->counters().delivered, (taken - 1) * numbers.size());
  unsetenv("KELVODRIX_NATS");
}

TEST_F(BusClusterStream, ReceiverTakesWhatIsNewWhereTheServerHasLostWhatItHad) {
  NatsServer own;
  const std::string there = own.address("nats-stream://") + name, saved = own.folder() + ".saved";
  Receiver receiver(there);
  auto sender = std::make_unique<Sender>(there);
  for (uint32_t i = 1; i <= 2; ++i) {
    for (uint32_t frame = 0; frame < i; ++frame) {
      EXPECT_EQ(sender->send({i, i}), KELVODRIX_OK);
      EXPECT_EQ(sender->flush(), kAllDelivered);
    }
    own.stop();
    if (i == 1) std::filesystem::copy(own.folder(), saved, std::filesystem::copy_options::recursive);
    if (i == 2) std::filesystem::remove_all(own.folder());
    if (i == 2) std::filesystem::rename(saved, own.folder());
    own.start();
  }
  sender = std::make_unique<Sender>(there);
  EXPECT_EQ(sender->send({3}), KELVODRIX_OK);
  EXPECT_EQ(sender->flush(), kAllDelivered);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (Numbers{1, 1, 2, 2, 2, 2, 3}));
}

TEST_F(BusClusterStream, ReceiverTakesNothingForHandledThatAServerHasLeftOut) {
  Receiver receiver(at);
  RawClient peer("peer.*");
  const std::string stream = "drix-" + name.substr(1), subjects = "drix-stream." + name.substr(1) + ".m.";
  const std::string info = server().ask("$JS.API.CONSUMER.LIST." + stream);
  server().ask("$JS.API.CONSUMER.DELETE." + stream + '.' + value_of("name", info));
  // In its place one that counts on when it leaves out a frame, as a server does that has not caught up.
  peer.publish("$JS.API.CONSUMER.CREATE." + stream, "peer.made",
               R"({"stream_name":")" + stream + R"(","config":{"ack_policy":"none","deliver_policy":"all",)" +
                   R"("filter_subject":")" + subjects + R"(b","deliver_subject":")" +
                   value_of("deliver_subject", info) + "\"}}");
  peer.next();
  peer.publish(subjects + 'a', "", frame(1, message(1)));
  peer.publish(subjects + 'b', "", frame(2, message(2)));
  EXPECT_TRUE(eventually([&] { return receiver.counters().delivered == 2; }));
  receiver.stop();
  EXPECT_EQ(receiver.numbers, range(1, 3));
}

TEST_F(BusClusterStream, ReceiverGoesOnInItsOwnStreamAndUnderItsOwnNameOnly) {
  const std::string stream = "drix-" + name.substr(1);
  auto receiver = std::make_unique<Receiver>(at);
  const auto send = [&](const Numbers &numbers) {
    const Sender sender(at);
    for (const uint32_t number : numbers) {
      EXPECT_EQ(sender.send({number}), KELVODRIX_OK);
      sender.flush(20);
    }
    EXPECT_EQ(kelvodrix_checkpoint(sender.handle), KELVODRIX_OK);
    return sender.flush();
  };
  EXPECT_EQ(send({1, 2, 3}), kAllDelivered);
  receiver.reset();
  server().ask("$JS.API.STREAM.DELETE." + stream);
  std::thread sending([&] { EXPECT_EQ(send({11, 12}), kAllDelivered); });
  EXPECT_TRUE(
      eventually([&] { return server().ask("$JS.API.STREAM.INFO." + stream).find("\"last_seq\":3") != at.npos; }));
  receiver = std::make_unique<Receiver>(at);
  sending.join();
  EXPECT_EQ(value_of("first_seq", server().ask("$JS.API.STREAM.INFO." + stream)), "2");  // purged before it returned
  // What comes again from a writer, at another place and time, is handled already.
  const RawClient peer("peer.*");
  for (const char *id : {"other-0", "other-0-again", "other-1"}) {
    const auto number = static_cast<uint32_t>(id[6] - '0');
    peer.store("drix-stream." + name.substr(1) + ".m.a", id, frame(number, message(20 + number)));
  }
  EXPECT_TRUE(eventually([&] { return receiver->counters().delivered >= 4; }));
  receiver->stop();
  EXPECT_EQ(receiver->numbers, (Numbers{11, 12, 20, 21}));

  std::atomic<int32_t> ran = KELVODRIX_OK;
  std::thread loop([&] { ran = kelvodrix_run(receiver->receiver); });
  peer.publish("$KV." + stream + ".receiver", "", "0 0 7");
  const Sender sender(at);
  EXPECT_EQ(sender.send({13}), KELVODRIX_OK);
  EXPECT_TRUE(eventually([&] { return ran == KELVODRIX_ERR_IN_USE; }));
  EXPECT_EQ(sender.flush(50), Undelivered(KELVODRIX_ERR_PENDING, 1));
  kelvodrix_stop(receiver->receiver);
  loop.join();
}

// Sends 40 frames in a process that exits at once. False where another test has used a server in this one.
bool send_and_exit(const std::string &at) {
  server();
  const pid_t child = fork();
  if (child == 0) {
    kelvodrix_receiver *receiver = nullptr;
    const bool needs_one = at.starts_with("nats:");
    const int32_t created = needs_one ? kelvodrix_receiver_create(at.c_str(), &receiver) : KELVODRIX_OK;
    uint32_t none = 0;
    if (kelvodrix_open(at.c_str(), nullptr, &none) == KELVODRIX_ERR_FORKED) _exit(2);
    const Sender sender(at);
    for (uint32_t i = 0; i < 40; ++i)
      if (created != KELVODRIX_OK || sender.send({i}) != KELVODRIX_OK) _exit(1);
    exit(0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status & ~W_EXITCODE(2, 0), 0);
  return status == 0;
}

TEST_F(BusClusterStream, ExitStoresWhatSendsHaveLeft) {
  if (!send_and_exit(at)) GTEST_SKIP() << "another test has used a server in this process";
  Receiver receiver(at);
  EXPECT_TRUE(eventually([&] { return receiver.counters().delivered == 40; }));
}

TEST_F(BusCluster, ExitPublishesWhatSendsHaveLeft) {
  const std::string at = endpoint("nats");
  RawClient tap("drix." + at.substr(at.rfind('/') + 1) + ".m.>");
  if (!send_and_exit(at)) GTEST_SKIP() << "another test has used a server in this process";
  for (size_t bytes = 0; bytes < 40 * frame(1, message(1)).size();) bytes += tap.next().bytes.size() - 8;
}

TEST_F(BusCluster, EachErrorHasItsStatus) {
  NatsServer plain(
      "jetstream: disabled\n"
      "authorization { users: [{user: u, password: p}, {user: d, password: p, permissions: {publish: x}}] }\n");
  const std::string folder = plain.folder() + '/', settings = folder + "settings";
  const auto make = [&](const std::string &name) {
    return std::system(
        ("openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=x -addext subjectAltName=IP:127.0.0.1 -keyout " + folder +
         name + ".key -out " + folder + name + ".pem 2>/dev/null")
            .c_str());
  };
  ASSERT_EQ(make("good") + make("other"), 0);
  NatsServer secure("tls { cert_file: " + folder + "good.pem, key_file: " + folder + "good.key }\n");
  setenv("KELVODRIX_NATS", settings.c_str(), 1);
  const std::string user = "# who\n\nuser=u\npassword=";
  const struct {
    std::string settings, at;
    int32_t status;
  } cases[] = {
      {user + "p\n", plain.address(), KELVODRIX_OK},
      {user + "wrong\n", plain.address(), KELVODRIX_ERR_CREDENTIALS},
      {"user=d\npassword=p\n", plain.address(), KELVODRIX_ERR_CREDENTIALS},
      {"", plain.address(), KELVODRIX_ERR_CREDENTIALS},
      {"who=u\n", plain.address(), KELVODRIX_ERR_SETTINGS},
      {"ca=" + folder + "missing.pem\n", plain.address(), KELVODRIX_ERR_SETTINGS},
      {"credentials=" + folder + "missing\n", plain.address(), KELVODRIX_ERR_SETTINGS},
      {"ca=" + folder + "good.pem\n", secure.address("tls://"), KELVODRIX_OK},
      {"ca=" + folder + "other.pem\n", secure.address("tls://"), KELVODRIX_ERR_CERTIFICATE},
      {"", secure.address("tls://"), KELVODRIX_ERR_CERTIFICATE},
      {user + "p\n", plain.address("tls://"), KELVODRIX_ERR_CERTIFICATE},
      {"", "nats://127.0.0.1:1", KELVODRIX_ERR_SERVER},
      {"", "nats://127.0.0.1:1,no..host:4222", KELVODRIX_ERR_HOST},
      {"", "nats://u:p@127.0.0.1:1", KELVODRIX_ERR_ENDPOINT},
      {"", "nats://", KELVODRIX_ERR_ENDPOINT},
      {user + "p\n", plain.address("nats-stream://"), KELVODRIX_ERR_STREAM},
      {"user=d\npassword=p\n", plain.address("nats-stream://"), KELVODRIX_ERR_CREDENTIALS},
      {"replicas=3\n", server().address("nats-stream://"), KELVODRIX_ERR_STREAM},
      {"replicas=some\n", server().address("nats-stream://"), KELVODRIX_ERR_SETTINGS},
      {"ca=" + folder + "other.pem\n", secure.address("tls-stream://"), KELVODRIX_ERR_CERTIFICATE},
  };
  for (const auto &[lines, servers, status] : cases) {
    std::ofstream(settings) << lines;
    const bool stream = servers.find("-stream") != servers.npos;
    uint32_t handle = 0, number = 1;
    kelvodrix_options options = {stream ? 3000u : 1000u, 4, 1000};
    EXPECT_EQ(create(servers + "/a.b"), KELVODRIX_ERR_ENDPOINT);
    const int32_t created = status == KELVODRIX_OK ? status : create(servers + (stream ? "/x/receiver" : "/x"));
    EXPECT_EQ(created, status) << lines << servers;
    DrixSendDescriptor one = {reinterpret_cast<uintptr_t>(&number), kId, sizeof(number)};
    const int32_t opened = kelvodrix_open((servers + "/y").c_str(), &options, &handle);
    const int32_t sent = opened == KELVODRIX_OK ? DRIX_SendMsg(handle, &one, 1) : opened;
    EXPECT_EQ(sent, status == KELVODRIX_OK ? KELVODRIX_ERR_NO_RECEIVER : status) << lines << servers;
    kelvodrix_close(handle, 0, nullptr);
    kelvodrix_tap *tap = nullptr;
    const int32_t tapped = kelvodrix_tap_open((servers + "/y").c_str(), nullptr, &tap);
    EXPECT_EQ(tapped, lines.starts_with("user=d") && !stream ? KELVODRIX_OK : status) << lines << servers;
    kelvodrix_tap_close(tap);
  }
  // A right that is needed only when frames are missing.
  std::ofstream(settings) << user << "p\n";
  NatsServer mute(
      "authorization { users: [{user: u, password: p, permissions: {publish: {deny: "
      "[\"$JS.API.STREAM.MSG.GET.drix-x\", \"$JS.API.STREAM.PURGE.>\"]}}}] }\n");
  EXPECT_EQ(create(mute.address("nats-stream://") + "/x/receiver"), KELVODRIX_ERR_CREDENTIALS);
  {
    const Sender sender(mute.address("nats-stream://") + "/y");
    EXPECT_EQ(sender.send({1}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(kelvodrix_checkpoint(sender.handle), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(50), Undelivered(KELVODRIX_ERR_PENDING, 0));  // until the former table is gone
  }
  unsetenv("KELVODRIX_NATS");
  for (const char *rest : {"", "/x", "/x/", "/x/y/z", "/x/y?from=never", "//y", "/x/y?from", "/x/y.z"})
    EXPECT_EQ(create("nats-stream://127.0.0.1:1" + std::string(rest)), KELVODRIX_ERR_ENDPOINT) << rest;
  uint32_t none = 0;
  EXPECT_EQ(kelvodrix_open("nats-stream://127.0.0.1:1/x/y", nullptr, &none), KELVODRIX_ERR_ENDPOINT);
  // A child can use no server, and does not hang.
  const pid_t child = fork();
  if (child == 0) {
    alarm(kLong / 1000);
    exit(create("nats://127.0.0.1:1/x") == KELVODRIX_ERR_FORKED ? 0 : 1);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_EQ(status, 0);
}
#endif

TEST(Bus, CallsCleanHooksAfterTheLastChannel) {
  EXPECT_EQ(DRIX_RegIDLResorceCleanFuncHook(nullptr), KELVODRIX_ERR_INVALID);
  for (int i = 0; i < 2; ++i) EXPECT_EQ(DRIX_RegIDLResorceCleanFuncHook([] { ++hook_calls; }), KELVODRIX_OK);
  hook_calls = 0;
  const Sender one(endpoint("ipc")), two(endpoint("ipc"));
  EXPECT_EQ(kelvodrix_close(one.handle, 0, nullptr), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_close(one.handle, 0, nullptr), KELVODRIX_ERR_HANDLE);
  EXPECT_EQ(hook_calls, 0);
  EXPECT_EQ(kelvodrix_close(two.handle, 0, nullptr), KELVODRIX_OK);
  EXPECT_EQ(hook_calls, 1);
  EXPECT_EQ(two.send({1}), KELVODRIX_ERR_HANDLE);
}

}  // namespace

// The program's own functions come before the C and C++ libraries', for the bus too.

void *operator new(size_t size) {
  void *const block = std::malloc(size);
  if (block == nullptr) throw std::bad_alloc();
  const size_t now = heap_bytes += malloc_usable_size(block);
  if (now > heap_peak) heap_peak = now;
  return block;
}

void operator delete(void *block) noexcept {
  heap_bytes -= malloc_usable_size(block);
  std::free(block);
}

void operator delete(void *block, size_t) noexcept { operator delete(block); }

extern "C" {

ssize_t write(int fd, const void *bytes, size_t size) {
  if (gate != nullptr) {
    gate->reached = true;
    while (!gate->open) std::this_thread::yield();
  }
  return syscall(SYS_write, fd, bytes, size);
}

// Children of processes with several threads have threads of their own here.
const char *__tsan_default_options() { return "die_after_fork=0"; }
}
