// The bus between threads, between processes, and against peers that break its rules.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kelvodrix.h"

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
kelvodrix_receiver *stopped_by_signal;

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

// Below the ports that the kernel gives to connecting sockets; tests that run at the same time differ.
std::string endpoint(const std::string &transport, uint16_t number = 0) {
  const int port = 10000 + getpid() % 2500 * 8 + number;
  if (transport == "tcp") return "tcp://127.0.0.1:" + std::to_string(port);
  return transport + "://" + (transport == "ipc" ? testing::TempDir() : "") + "kelvodrix_" + std::to_string(port);
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
    EXPECT_EQ(kelvodrix_receiver_create(at.c_str(), &receiver), KELVODRIX_OK);
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

// How many ends of connections find out by themselves that the other host is gone.
int count_watched() {
  int count = 0;
  for (int fd = 0; fd < 1024; ++fd) {
    int alive = 0;
    sockaddr_storage peer;
    socklen_t size = sizeof(alive), peer_size = sizeof(peer);
    count += getpeername(fd, reinterpret_cast<sockaddr *>(&peer), &peer_size) == 0 &&
             getsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &alive, &size) == 0 && alive != 0;
  }
  return count;
}

class Transport : public testing::TestWithParam<const char *> {
 protected:
  const std::string at = endpoint(GetParam()), elsewhere = endpoint(GetParam(), 1);
};
INSTANTIATE_TEST_SUITE_P(Bus, Transport, testing::Values("inproc", "ipc", "tcp"));

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
  EXPECT_EQ(count_watched(), at.starts_with("tcp") ? 4 : 0);
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

TEST_P(Transport, SlowReceiverFillsTheWindowAndARestartedOneAnswersForItself) {
  auto first = std::make_unique<Receiver>(at, false);
  std::vector<uint8_t> large(12 << 20);
  DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(large.data()), kId, 12u << 20};
  Sender sender(at, {1000, 4, 13u << 20}), small(at, {0, 1, 100});
  for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(sender.send({i}), KELVODRIX_OK);
  EXPECT_EQ(DRIX_SendMsg(sender.handle, &message, 1), KELVODRIX_OK);  // far more than a socket takes
  EXPECT_EQ(sender.send({99}), KELVODRIX_ERR_WINDOW);
  EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 4));
  EXPECT_EQ(small.send(Numbers(10, 7)), KELVODRIX_ERR_TOO_BIG);
  first->start();
  // Also what was not written yet arrives without a further call.
  EXPECT_TRUE(eventually([&] { return first->counters().delivered == 4; }));
  EXPECT_EQ(sender.flush(), kAllDelivered);
  first->stop();
  EXPECT_EQ(first->numbers, (Numbers{0, 1, 2, 0}));

  for (uint32_t i = 0; i < 4; ++i) EXPECT_EQ(sender.send(range(i, 5)), KELVODRIX_OK);
  first.reset();
  Receiver second(at);
  EXPECT_EQ(sender.send({7}), KELVODRIX_OK);  // needs the room that the lost frames took
  EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 14));
  second.stop();
  EXPECT_EQ(second.numbers, range(7, 8));
}

TEST(Bus, WaitingSendHoldsUpNothingElse) {
  Receiver full(endpoint("ipc"), false), idle(endpoint("ipc", 1));
  Sender sender(endpoint("ipc"), {kLong, 1, 1000}), absent(endpoint("ipc", 2), {20, 4, 1000});
  uint32_t destination = 0;
  ASSERT_EQ(kelvodrix_destination(sender.handle, endpoint("ipc", 1).c_str(), &destination), KELVODRIX_OK);
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
  for (const std::string transport : {"ipc", "tcp"}) {
    const std::string at = endpoint(transport);
    auto first = std::make_unique<Child>(at);
    Sender sender(at, {kLong, 64, 1 << 20});
    EXPECT_EQ(sender.send({0, 1}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    kill(first->pid, SIGSTOP);
    waitpid(first->pid, nullptr, WUNTRACED);
    for (uint32_t i = 0; i < 60; ++i) EXPECT_EQ(sender.send(Numbers(1000)), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(transport == "tcp" ? 4000 : 20), Undelivered(KELVODRIX_ERR_PENDING, 60000));
    kill(first->pid, SIGCONT);
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(sender.send({4, 5}), KELVODRIX_OK);  // it hangs in that
    EXPECT_EQ(sender.send({6}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(20), Undelivered(KELVODRIX_ERR_PENDING, 3));
    first.reset();
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 3));
    const Child second(at);  // an ipc one replaces what the first has left
    EXPECT_EQ(sender.send({7}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 3));
  }
}

TEST(Bus, CountsWhatBecameOfEachMessage) {
  Receiver receiver(endpoint("ipc"));
  const Sender sender(endpoint("ipc"));
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

TEST(Bus, SubscriberMayEndItsThread) {
  for (uint32_t end : {kExit, kCancel}) {
    Receiver receiver(endpoint("ipc"), false);
    Sender sender(endpoint("ipc"));
    for (const Numbers &numbers : {Numbers{1}, Numbers{2, end, 3}, Numbers{4}})
      EXPECT_EQ(sender.send(numbers), KELVODRIX_OK);
    receiver.on_number = [&](uint32_t number) { number == 1 ? kelvodrix_stop(receiver.receiver) : void(); };
    for (int run = 0; run < 2; ++run, receiver.loop.join()) receiver.start();  // stopped after 1, ended in the next
    EXPECT_EQ(live_records, 0);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 4));
    EXPECT_EQ(receiver.counters().failed, 1u);
    receiver.start();  // in another thread
    EXPECT_EQ(sender.send({5}), KELVODRIX_OK);
    EXPECT_EQ(sender.flush(), Undelivered(KELVODRIX_ERR_LOST, 4));
    receiver.stop();
    EXPECT_EQ(receiver.numbers, (Numbers{1, 2, end, 5}));
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
  void send(const std::string &bytes) const {
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

std::string message(uint32_t number) {
  return little_endian(kId, 4) + little_endian(4, 4) + std::string(reinterpret_cast<const char *>(&number), 4);
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
    for (char byte : frame(1, message(0)) + frame(2, message(0))) peer.send({byte});
    for (std::string last; last != little_endian(2, 8);) ASSERT_NE(last = peer.receive(8), "");
    peer.send(third);
    EXPECT_EQ(peer.receive(1), "");
    EXPECT_EQ(receiver.counters().malformed, handled);
  }
  EXPECT_EQ(receiver.counters().messages, 400 + 2 * handled);
}

TEST(Bus, SenderBelievesOnlyGoodAcknowledgements) {
  for (const std::string &bad : {little_endian(0, 8), little_endian(2, 8), std::string(8, '\xFF'), std::string()}) {
    RawPeer peer(true);
    Sender sender(endpoint("ipc"));
    EXPECT_EQ(sender.send({1, 2}), KELVODRIX_OK);
    EXPECT_EQ(sender.send({3, 4, 5}), KELVODRIX_OK);
    peer.accept();
    EXPECT_EQ(peer.receive(44 + 56).substr(8, 8), little_endian(1, 8));
    peer.send(little_endian(1, 8) + little_endian(2, 3));
    EXPECT_TRUE(eventually([&] { return sender.flush(1) == Undelivered(KELVODRIX_ERR_PENDING, 3); }));
    peer.send(std::string(5, '\0'));
    EXPECT_EQ(sender.flush(), kAllDelivered);
    EXPECT_EQ(sender.send({6}), KELVODRIX_OK);
    peer.send(bad.empty() ? little_endian(3, 8) : bad);
    EXPECT_EQ(sender.flush(), bad.empty() ? kAllDelivered : Undelivered(KELVODRIX_ERR_LOST, 1));
  }
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
  const std::clock_t before = std::clock();
  EXPECT_EQ(sender.flush(500), Undelivered(KELVODRIX_ERR_PENDING, 1));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 5);  // it does not spin
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
  Receiver receiver(endpoint("ipc")), inside(endpoint("inproc")), near(endpoint("tcp"));
  Receiver named("test" + std::to_string(getpid()));
  EXPECT_EQ(chmod(own.c_str(), 0711), 0);
  const std::map<int32_t, std::vector<std::string>> cases = {
      {KELVODRIX_ERR_BIND, {folder + "/missing/x", file, "tcp-open://203.0.113.1:1234"}},
      {KELVODRIX_ERR_IN_USE, {endpoint("ipc"), endpoint("inproc"), endpoint("tcp")}},
      {KELVODRIX_ERR_PATH, {"ipc:///tmp/" + std::string(103, 'x')}},
      {KELVODRIX_ERR_OPEN, {"tcp://0.0.0.0:1234", "tcp://[::]:1234"}},
      {KELVODRIX_ERR_FOLDER, {"name"}},
      {KELVODRIX_ERR_ENDPOINT,
       {"ipc://", "", "pgm://x", "tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://127.0.0.1:0", "tcp://127.0.0.1:65536",
        "tcp://[::1]:12x", "tcp://::1:1234", "tcp://:1234", "tcp://localhost:1234"}},
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
  Receiver(path).stop();
  EXPECT_NE(stat(path.c_str(), &found), 0);
  EXPECT_NE(stat((path + ".lock").c_str(), &found), 0);
}

TEST(Bus, StopsFromEverywhere) {
  Receiver receiver(endpoint("inproc"));
  receiver.stop();                    // from another thread
  kelvodrix_stop(receiver.receiver);  // and before it runs
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
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
  EXPECT_EQ(sender.send({1, 2}), KELVODRIX_OK);
  EXPECT_EQ(sender.send({3}), KELVODRIX_OK);
  EXPECT_EQ(kelvodrix_run(receiver.receiver), KELVODRIX_OK);
  EXPECT_EQ(receiver.numbers, range(1, 3));  // the whole frame, and no more
}

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
