// The bus between threads, between processes, and against peers that break its rules.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kelvodrix.h"

namespace {

using std::chrono::milliseconds;
using Undelivered = std::pair<int32_t, uint64_t>;  // a flush's status and what it counts

constexpr uint32_t kId = 0xCC4E6BC6, kOtherId = 7, kUnknownId = 8;
constexpr uint32_t kLong = 60000;  // ms; only a failing test waits that long, however loaded the machine
constexpr uint32_t kThrow = 0xDEAD, kExit = 0xDEAE, kCancel = 0xDEAF;
const Undelivered kAllDelivered = {KELVODRIX_OK, 0};

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

// Below the ports that the kernel gives to connecting sockets; tests that run at the same time differ.
std::string endpoint(const std::string &transport, uint16_t number = 0) {
  const int port = 10000 + getpid() % 2500 * 8 + number;
  if (transport == "tcp") return "tcp://127.0.0.1:" + std::to_string(port);
  return transport + "://" + (transport == "ipc" ? testing::TempDir() : "") + "kelvodrix_" + std::to_string(port);
}

int32_t send(uint32_t handle, std::vector<uint32_t> numbers, uint32_t destination = 0, uint32_t id = kId) {
  std::vector<DrixSendDescriptor> messages;
  for (uint32_t &number : numbers) messages.push_back({reinterpret_cast<uintptr_t>(&number), id, sizeof(number)});
  const auto count = static_cast<uint32_t>(messages.size());
  return destination == 0 ? DRIX_SendMsg(handle, messages.data(), count)
                          : DRIX_SendToMsg(handle, messages.data(), count, destination);
}

std::vector<uint32_t> range(uint32_t from, uint32_t to) {
  std::vector<uint32_t> numbers;
  for (; from < to; ++from) numbers.push_back(from);
  return numbers;
}

struct Sender {
  explicit Sender(const std::string &to, kelvodrix_options options = {kLong, 256, 1u << 20}) {
    EXPECT_EQ(kelvodrix_open(to.c_str(), &options, &handle), KELVODRIX_OK);
  }
  ~Sender() { kelvodrix_close(handle, 0, nullptr); }

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
  // AddressSanitizer does not see a cancelled function's variables go.
  __attribute__((no_sanitize("address"))) static void note(void *context, uint32_t, const void *of, uint32_t size) {
    const uint32_t number = static_cast<Receiver *>(context)->take(*static_cast<const Record *>(of), size);
    if (number == kThrow) throw std::runtime_error("subscriber");
    if (number == kExit) pthread_exit(nullptr);
    if (number == kCancel) {
      pthread_cancel(pthread_self());
      pthread_testcancel();
    }
  }
  uint32_t take(const Record &record, uint32_t size) {
    EXPECT_EQ(size, sizeof(Record));
    numbers.push_back(record.number);
    on_number(record.number);
    return record.number;
  }

  kelvodrix_receiver *receiver = nullptr;
  std::vector<uint32_t> numbers;
  std::function<void(uint32_t)> on_number = [](uint32_t) {};
  std::thread loop;
};

class Transport : public testing::TestWithParam<const char *> {
 protected:
  const std::string at = endpoint(GetParam()), elsewhere = endpoint(GetParam(), 1);
};
INSTANTIATE_TEST_SUITE_P(Bus, Transport, testing::Values("inproc", "ipc", "tcp"),
                         [](const auto &of) { return of.param; });

TEST_P(Transport, DeliversInOrderAndKeepsDestinationsApart) {
  Receiver receiver(at), other(elsewhere);
  Sender sender(at), stranger(at);
  uint32_t next = 0, destination = 0;
  for (uint32_t count : {1u, 2u, 64u, 0u, 5000u, 1u}) {
    EXPECT_EQ(send(sender.handle, range(next, next + count)), KELVODRIX_OK);
    next += count;
  }
  ASSERT_EQ(kelvodrix_destination(sender.handle, elsewhere.c_str(), &destination), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {2}, destination), KELVODRIX_OK);
  EXPECT_EQ(send(stranger.handle, {3}, destination), KELVODRIX_ERR_DESTINATION);
  EXPECT_EQ(send(destination, {4}), KELVODRIX_ERR_HANDLE);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(receiver.counters().frames, 5u);
  EXPECT_EQ(receiver.counters().delivered, next);
  receiver.stop();
  other.stop();
  EXPECT_EQ(receiver.numbers, range(0, next));
  EXPECT_EQ(other.numbers, range(2, 3));
}

TEST_P(Transport, ThreadsShareAChannel) {
  Receiver receiver(at);
  Sender sender(at, {kLong, 8, 1000});
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

TEST_P(Transport, SlowReceiverFillsTheWindowAndLosesNothing) {
  Receiver receiver(at, false);
  const std::vector<uint32_t> many(10, 7);
  std::vector<uint8_t> large(12 << 20);
  DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(large.data()), kId, 12u << 20};
  Sender sender(at, {1000, 4, 13u << 20}), small(at, {0, 1, 100});
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(send(sender.handle, {i}), KELVODRIX_OK);
  EXPECT_EQ(DRIX_SendMsg(sender.handle, &message, 1), KELVODRIX_OK);  // far more than a socket takes
  EXPECT_EQ(send(sender.handle, {99}), KELVODRIX_ERR_WINDOW);
  EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 4));
  EXPECT_EQ(send(small.handle, many), KELVODRIX_ERR_TOO_BIG);
  receiver.start();
  // Also what was not written yet arrives without a further call.
  for (uint32_t ms = 0; ms < kLong && receiver.counters().delivered < 4; ++ms)
    std::this_thread::sleep_for(milliseconds(1));
  EXPECT_EQ(receiver.counters().delivered, 4u);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(send(sender.handle, {4}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (std::vector<uint32_t>{0, 1, 2, 0, 4}));
}

TEST_P(Transport, RestartedReceiverAnswersForItselfOnly) {
  auto first = std::make_unique<Receiver>(at);
  Sender sender(at, {kLong, 2, 1000});
  EXPECT_EQ(send(sender.handle, {1, 2}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first->stop();
  EXPECT_EQ(send(sender.handle, {3, 4, 5}), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {6}), KELVODRIX_OK);
  first.reset();
  Receiver second(at);
  EXPECT_EQ(send(sender.handle, {7}), KELVODRIX_OK);  // needs the room that the lost frames took
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 4));
  second.stop();
  EXPECT_EQ(second.numbers, range(7, 8));
}

TEST(Bus, WaitingSendHoldsUpNothingElse) {
  Receiver full(endpoint("ipc"), false), idle(endpoint("ipc", 1));
  Sender sender(endpoint("ipc"), {kLong, 1, 1000}), absent(endpoint("ipc", 2), {20, 4, 1000});
  uint32_t destination = 0;
  ASSERT_EQ(kelvodrix_destination(sender.handle, endpoint("ipc", 1).c_str(), &destination), KELVODRIX_OK);
  EXPECT_EQ(send(sender.handle, {1}), KELVODRIX_OK);
  std::atomic<bool> waiting = true;
  std::thread waiter([&] {
    EXPECT_EQ(send(sender.handle, {2}), KELVODRIX_ERR_HANDLE);
    waiting = false;
  });
  std::this_thread::sleep_for(milliseconds(50));  // or else there is nothing to hold up
  EXPECT_EQ(sender.flush(0), Undelivered(KELVODRIX_ERR_PENDING, 1));
  EXPECT_EQ(send(sender.handle, {3}, destination), KELVODRIX_OK);
  EXPECT_EQ(send(absent.handle, {1}), KELVODRIX_ERR_NO_RECEIVER);
  EXPECT_EQ(absent.flush(0), kAllDelivered);  // nothing was queued
  while (sender.flush(1).second == 2 && waiting) {
  }
  EXPECT_TRUE(waiting);
  EXPECT_EQ(kelvodrix_close(sender.handle, 0, nullptr), KELVODRIX_ERR_PENDING);
  waiter.join();
  idle.stop();
  EXPECT_EQ(idle.numbers, range(3, 4));
}

// A receiver in a process of its own.
struct Child {
  explicit Child(const std::string &at) {
    int ready[2];
    EXPECT_EQ(pipe(ready), 0);
    if ((pid = fork()) == 0) {
      Receiver receiver(at, false);
      receiver.on_number = [](uint32_t number) { number == 5 ? pause() : 0; };
      _exit(write(ready[1], "", 1) == 1 ? kelvodrix_run(receiver.receiver) : 255);
    }
    char byte;
    EXPECT_EQ(read(ready[0], &byte, 1), 1);
    close(ready[0]);
    close(ready[1]);
  }
  ~Child() {
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
  }
  pid_t pid;
};

TEST(Bus, PausedReceiverLosesNothingAndAKilledOneLeavesItsMessagesCounted) {
  for (const std::string transport : {"ipc", "tcp"}) {
    const std::string at = endpoint(transport);
    auto first = std::make_unique<Child>(at);
    Sender sender(at, {kLong, 64, 1 << 20});
    EXPECT_EQ(send(sender.handle, {0, 1}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    kill(first->pid, SIGSTOP);
    for (uint32_t i = 0; i < 60; ++i) EXPECT_EQ(send(sender.handle, std::vector<uint32_t>(1000)), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(transport == "tcp" ? 4000 : 20), Undelivered(KELVODRIX_ERR_PENDING, 60000));
    kill(first->pid, SIGCONT);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(send(sender.handle, {4, 5}), KELVODRIX_OK);  // it hangs in that
    EXPECT_EQ(send(sender.handle, {6}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 3));
    first.reset();
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 3));
    Child second(at);  // an ipc one replaces what the first has left
    EXPECT_EQ(send(sender.handle, {7}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 3));
  }
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
  const kelvodrix_counters counters = receiver.counters();
  EXPECT_EQ(counters.frames, 4u);
  EXPECT_EQ(counters.messages, 7u);
  EXPECT_EQ(counters.delivered, 3u);
  EXPECT_EQ(counters.failed, 1u);
  EXPECT_EQ(counters.unknown_id, 2u);
  EXPECT_EQ(counters.no_subscriber, 1u);
  receiver.stop();
  EXPECT_EQ(receiver.numbers, (std::vector<uint32_t>{1, kThrow, 3, 0}));  // the rejected one reads as zero
}

TEST(Bus, SubscriberMayEndItsThread) {
  for (uint32_t end : {kExit, kCancel}) {
    Receiver receiver(endpoint("ipc"), false);
    Sender sender(endpoint("ipc"));
    for (const std::vector<uint32_t> &numbers : {range(1, 2), {2, end, 3}, {4}})
      EXPECT_EQ(send(sender.handle, numbers), KELVODRIX_OK);
    receiver.on_number = [&](uint32_t number) { number == 1 ? kelvodrix_stop(receiver.receiver) : void(); };
    for (int run = 0; run < 2; ++run) {  // stopped after the first frame, and ended in the second
      receiver.start();
      receiver.loop.join();
    }
    EXPECT_EQ(live_blocks, 0);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 4));
    EXPECT_EQ(receiver.counters().messages, receiver.counters().delivered + 1);
    EXPECT_EQ(receiver.counters().failed, 1u);
    receiver.start();  // in another thread
    EXPECT_EQ(send(sender.handle, {5}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 4));
    receiver.stop();
    EXPECT_EQ(receiver.numbers, (std::vector<uint32_t>{1, 2, end, 5}));
  }
}

// A peer of an ipc receiver, or in its place, that speaks raw bytes.
struct RawPeer {
  explicit RawPeer(const std::string &at, bool as_receiver = false) : path(at.substr(6)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    const auto *to = reinterpret_cast<const sockaddr *>(&address);
    EXPECT_EQ((as_receiver ? bind : connect)(fd, to, sizeof(address)), 0) << strerror(errno);
    if (as_receiver) {
      EXPECT_EQ(listen(fd, 1), 0);
    }
  }
  ~RawPeer() { close(fd); }
  void accept() {
    const int accepted = ::accept(fd, nullptr, nullptr);
    dup2(accepted, fd);
    close(accepted);
    unlink(path.c_str());
  }
  void send(const std::string &bytes) const {
    for (size_t at = 0; at < bytes.size();) {
      const ssize_t count = ::send(fd, &bytes[at], bytes.size() - at, MSG_NOSIGNAL);
      if (count < 0) return;  // the other end may hang up at any time
      at += static_cast<size_t>(count);
    }
  }
  // As many bytes, less at the end of the connection.
  std::string receive(size_t size) const {
    std::string bytes(size, '\0');
    const ssize_t count = recv(fd, bytes.data(), size, MSG_WAITALL);
    return bytes.substr(0, static_cast<size_t>(std::max<ssize_t>(count, 0)));
  }

  const std::string path;
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

std::string message(uint32_t number) {
  return little_endian(kId, 4) + little_endian(4, 4) + std::string(reinterpret_cast<const char *>(&number), 4);
}

TEST(Bus, DisconnectsWhoeverSendsAnythingMalformed) {
  Receiver receiver(endpoint("ipc"));
  const std::string good = frame(1, message(1));
  std::vector<std::string> bad = {frame(1, message(1) + '\0'), frame(1, ""), frame(1, message(1), 2),
                                  frame(1, message(1).substr(0, 11)), frame(0, ""), frame(2, message(2)),
                                  little_endian(19, 4), little_endian((16 << 20) + 1, 4), std::string(4, '\xFF'),
                                  // Each of these would be a line in a decoder's log.
                                  frame(1, std::string(65537 * 8, '\0'), 65537),
                                  frame(1, std::string((16 << 20) - 24, '\0'), (2 << 20) - 3)};
  for (size_t at = 4; at < 20; ++at) {
    bad.push_back(good);
    bad.back()[at] ^= '\x80';
  }
  uint64_t handled = 0;
  for (const std::string &bytes : bad) {
    RawPeer peer(endpoint("ipc")), cut_short(endpoint("ipc"));
    cut_short.send(
        good.substr(0, static_cast<std::size_t>(handled++) % good.size()));  // ends without having said anything
    peer.send(frame(1, message(0)) + frame(2, message(0)));
    EXPECT_EQ(peer.receive(8), little_endian(2, 8));
    std::string third = bytes;
    if (bytes.size() >= 16 && bytes[8] == 1) third[8] = 3;
    peer.send(third);
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_EQ(receiver.counters().malformed, handled);
  }
  EXPECT_EQ(receiver.counters().messages, 2 * handled);
}

TEST(Bus, HandlesWhatAGoneSenderHasSentAndEverythingInPieces) {
  Receiver receiver(endpoint("ipc"));
  std::string frames;
  for (uint32_t i = 0; i < 400; ++i) frames += frame(i + 1, message(i));
  receiver.on_number = [](uint32_t) { std::this_thread::sleep_for(std::chrono::microseconds(100)); };
  RawPeer(endpoint("ipc")).send(frames);  // and hangs up
  RawPeer slow(endpoint("ipc"));
  for (char byte : frames.substr(0, 2 * 32)) slow.send(std::string(1, byte));
  for (std::string last; last != little_endian(2, 8);) ASSERT_NE(last = slow.receive(8), "");
  for (uint32_t ms = 0; ms < kLong && receiver.counters().frames < 402; ++ms)
    std::this_thread::sleep_for(milliseconds(1));
  EXPECT_EQ(receiver.counters().delivered, 402u);
}

TEST(Bus, SenderBelievesOnlyGoodAcknowledgements) {
  for (const std::string &bad : {little_endian(0, 8), little_endian(2, 8), std::string(8, '\xFF'), std::string()}) {
    RawPeer peer(endpoint("ipc"), true);
    Sender sender(endpoint("ipc"));
    EXPECT_EQ(send(sender.handle, {1, 2}), KELVODRIX_OK);
    EXPECT_EQ(send(sender.handle, {3, 4, 5}), KELVODRIX_OK);
    peer.accept();
    EXPECT_EQ(peer.receive(44 + 56).substr(8, 8), little_endian(1, 8));
    peer.send(little_endian(1, 8) + little_endian(2, 3));
    while (sender.flush(1).second == 5) {
    }
    EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 3));
    peer.send(std::string(5, '\0'));
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(send(sender.handle, {6}), KELVODRIX_OK);
    bad.empty() ? peer.send(little_endian(3, 8)) : peer.send(bad);
    EXPECT_EQ(sender.flush(), bad.empty() ? kAllDelivered : Undelivered(KELVODRIX_ERR_LOST, 1));
  }
}

TEST(Bus, SurvivesTheLimitOfOpenFiles) {
  Receiver receiver(endpoint("ipc"), false);
  Sender sender(endpoint("ipc")), late(endpoint("ipc"));
  EXPECT_EQ(send(sender.handle, {1}), KELVODRIX_OK);  // connected, and not accepted
  rlimit former, low;
  getrlimit(RLIMIT_NOFILE, &former);
  low = {64, former.rlim_max};
  setrlimit(RLIMIT_NOFILE, &low);
  std::vector<int> used;
  for (int fd; (fd = dup(0)) >= 0;) used.push_back(fd);
  receiver.start();
  const std::clock_t before = std::clock();
  EXPECT_EQ(sender.flush(500), Undelivered(KELVODRIX_ERR_PENDING, 1));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);  // it does not spin
  EXPECT_EQ(send(late.handle, {2}), KELVODRIX_ERR_SYSTEM);
  kelvodrix_receiver *none = nullptr;
  EXPECT_EQ(kelvodrix_receiver_create(endpoint("ipc", 1).c_str(), &none), KELVODRIX_ERR_SYSTEM);
  for (int fd : used) close(fd);
  setrlimit(RLIMIT_NOFILE, &former);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  EXPECT_EQ(send(late.handle, {2}), KELVODRIX_OK);
  EXPECT_EQ(late.flush(), kAllDelivered);
}

TEST(Bus, FindsOutThatAHostIsGone) {
  Receiver receiver(endpoint("tcp"));
  Sender sender(endpoint("tcp"));
  EXPECT_EQ(send(sender.handle, {1}), KELVODRIX_OK);
  EXPECT_EQ(sender.flush(), kAllDelivered);
  char port[8];
  std::snprintf(port, sizeof(port), ":%04X", std::stoi(endpoint("tcp").substr(16)));
  int watched = 0;
  for (uint32_t ms = 0; ms < kLong && watched != 2; ++ms, std::this_thread::sleep_for(milliseconds(1))) {
    watched = 0;
    std::ifstream connections("/proc/net/tcp");
    for (std::string line; std::getline(connections, line);)  // established, and with the timer of a keepalive
      watched += line.find(port) != line.npos && line.find(" 01 00000000:00000000 02:") != line.npos;
  }
  EXPECT_EQ(watched, 2);
}

TEST(Bus, RefusesEndpointsThatCannotServe) {
  const std::string folder = testing::TempDir() + "kelvodrix_folder_" + std::to_string(getpid());
  const std::string file = folder + "_file", own = "/tmp/kelvodrix-" + std::to_string(geteuid());
  ASSERT_EQ(mkdir(folder.c_str(), 0755), 0);
  std::ofstream(file) << "precious";
  Receiver receiver(endpoint("ipc")), inside(endpoint("inproc")), near(endpoint("tcp")),
      named("test" + folder.substr(5));
  EXPECT_EQ(chmod(own.c_str(), 0711), 0);
  const struct {
    std::string endpoint;
    int32_t status;
  } cases[] = {
      {folder + "/missing/x", KELVODRIX_ERR_BIND},
      {file, KELVODRIX_ERR_BIND},
      {"tcp-open://203.0.113.1:1234", KELVODRIX_ERR_BIND},
      {endpoint("ipc"), KELVODRIX_ERR_IN_USE},
      {endpoint("inproc"), KELVODRIX_ERR_IN_USE},
      {endpoint("tcp"), KELVODRIX_ERR_IN_USE},
      {"ipc:///tmp/" + std::string(103, 'x'), KELVODRIX_ERR_PATH},
      {"tcp://0.0.0.0:1234", KELVODRIX_ERR_OPEN},
      {"tcp://[::]:1234", KELVODRIX_ERR_OPEN},
      {"name", KELVODRIX_ERR_FOLDER},
      {"ipc://", KELVODRIX_ERR_ENDPOINT},
      {"", KELVODRIX_ERR_ENDPOINT},
      {"pgm://x", KELVODRIX_ERR_ENDPOINT},
      {"tcp://127.0.0.1", KELVODRIX_ERR_ENDPOINT},
      {"tcp://127.0.0.1:0", KELVODRIX_ERR_ENDPOINT},
      {"tcp://127.0.0.1:65536", KELVODRIX_ERR_ENDPOINT},
      {"tcp://[::1]:12x", KELVODRIX_ERR_ENDPOINT},
      {"tcp://localhost:1234", KELVODRIX_ERR_ENDPOINT},
  };
  for (const auto &each : cases) {
    kelvodrix_receiver *none = nullptr;
    uint32_t handle = 0;
    EXPECT_EQ(kelvodrix_receiver_create(each.endpoint.c_str(), &none), each.status) << each.endpoint;
    EXPECT_STRNE(kelvodrix_strerror(each.status), kelvodrix_strerror(-1));
    if (each.status == KELVODRIX_ERR_BIND || each.status == KELVODRIX_ERR_IN_USE) continue;
    EXPECT_EQ(kelvodrix_open(each.endpoint.c_str(), nullptr, &handle), each.status) << each.endpoint;
  }
  EXPECT_EQ(chmod(own.c_str(), 0700), 0);
  EXPECT_EQ(remove(file.c_str()), 0);  // nothing has replaced it
  EXPECT_EQ(rmdir(folder.c_str()), 0);
}

TEST(Bus, IpcIsForItsUserAndLeavesNoFilesBehind) {
  const std::string path = endpoint("ipc").substr(6);
  struct stat file;
  {
    Receiver receiver(path);
    ASSERT_EQ(stat(path.c_str(), &file), 0);
    EXPECT_EQ(file.st_mode & 0777, 0600u);
    unlink(path.c_str());  // the lock still holds
    kelvodrix_receiver *second = nullptr;
    EXPECT_EQ(kelvodrix_receiver_create(path.c_str(), &second), KELVODRIX_ERR_IN_USE);
  }
  if (geteuid() == 0) {  // or else there is no other user at hand
    Receiver receiver(path);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    std::thread([] {
      ASSERT_EQ(syscall(SYS_setresuid, -1, 65534, -1), 0);  // of this thread, not of the receiver's
      RawPeer stranger(endpoint("ipc"));
      stranger.send(frame(1, message(1)));
      EXPECT_EQ(stranger.receive(8), "");
    }).join();
    EXPECT_EQ(receiver.counters().messages, 0u);
  }
  EXPECT_NE(stat(path.c_str(), &file), 0);
  EXPECT_NE(stat((path + ".lock").c_str(), &file), 0);
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
