// Kills senders, receivers and the server of the bus at random moments and keeps account of every record: what the bus
// has promised about it, and what became of it. Fails at the first difference.
//
// bus_kills [--kills N] [--seed N] [--nats-kills N] [--nats-pauses N]
//   --nats-kills   so many over a NATS server, which is killed too (default: 0)
//   --nats-pauses  so many receivers there stand still for longer than the server bears (default: 0)
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "kelvodrix.h"
#include "nats_server.h"

namespace {

constexpr uint32_t kId = 7, kMostFrames = 1 << 18;
constexpr uint32_t kLong = 60000;  // ms; nothing takes that long
constexpr uint32_t kMostUnacknowledged = 64;
constexpr unsigned kPause = 12;  // s

// What the sender knows of a frame.
enum State : uint8_t { kNone, kUnderWay, kAccepted, kRefused, kAcknowledged, kLost };

enum Event : uint32_t { kSenderDies, kReceiverDies, kServerDies, kReceiverPauses };

struct Round {
  Event event;
  bool one_by_one;
  uint32_t window, batch, message_bytes, delay_us;
  NatsServer *server;  // null: on this host

  bool receiver_dies() const { return event == kReceiverDies; }
};

struct Message {
  uint32_t frame, number;
};

// Shared by all processes; what one process has written when it is killed stays.
struct Account {
  std::atomic<uint32_t> frames, wrong;
  std::atomic<uint32_t> second_sender;  // its first frame
  std::atomic<uint64_t> undelivered;    // as the last sender says
  std::atomic<bool> done;               // the senders have sent enough
  std::atomic<uint32_t> goes_on;        // the first frame after the event
  std::atomic<uint32_t> handled_after;
  struct Frame {
    std::atomic<State> state;
    std::atomic<uint32_t> handled;  // messages
  } frame[kMostFrames];
};
Account *account;
kelvodrix_receiver *receiver;
bool is_second;  // receiver

void expect(bool holds, const char *what) {
  if (holds) return;
  std::printf("difference: %s\n", what);
  std::fflush(stdout);
  ++account->wrong;
}

uint32_t decode(const uint8_t *bytes, uint32_t length, void *record) {
  std::memcpy(record, bytes, std::min<size_t>(length, sizeof(Message)));
  return sizeof(Message);
}

// Each message comes once and in order; those of two senders may mix.
void handle(void *, uint32_t, const void *record, uint32_t) {
  static uint32_t last[2];
  const auto &message = *static_cast<const Message *>(record);
  if (message.frame >= kMostFrames) return expect(false, "a message that nobody sent");
  uint32_t &before = last[message.frame >= account->second_sender];
  expect(message.frame >= before, "frames out of order");
  before = message.frame;
  expect(account->frame[message.frame].handled++ == message.number, "messages of a frame twice or out of order");
  if (is_second || message.frame >= account->goes_on) ++account->handled_after;
}

int receive(const std::string &at) {
  DRIX_RegIDLFuncHook(kId, decode, [](void *) {});
  if (kelvodrix_receiver_create(at.c_str(), &receiver) != KELVODRIX_OK) return 1;
  kelvodrix_subscribe(receiver, kId, handle, nullptr);
  signal(SIGTERM, [](int) { kelvodrix_stop(receiver); });
  return kelvodrix_run(receiver) != KELVODRIX_OK || kelvodrix_receiver_destroy(receiver) != KELVODRIX_OK;
}

int send(const std::string &at, const Round &round) {
  const kelvodrix_options options = {20, round.window, 32 << 20};
  uint32_t handle = 0;
  if (kelvodrix_open(at.c_str(), &options, &handle) != KELVODRIX_OK) return 1;
  std::vector<uint8_t> bytes(round.batch * round.message_bytes);
  std::vector<DrixSendDescriptor> messages;
  for (uint32_t i = 0; i < round.batch; ++i)
    messages.push_back({reinterpret_cast<uintptr_t>(&bytes[i * round.message_bytes]), kId, round.message_bytes});
  uint64_t lost = 0, undelivered = 0;
  while (!account->done) {
    if (account->frames == kMostFrames) {
      usleep(100);
      continue;
    }
    const uint32_t number = account->frames++;
    std::atomic<State> &state = account->frame[number].state;
    for (uint32_t i = 0; i < round.batch; ++i) {
      const Message message = {number, i};
      std::memcpy(&bytes[i * round.message_bytes], &message, sizeof(message));
    }
    state = kUnderWay;
    const int32_t status = DRIX_SendMsg(handle, messages.data(), round.batch);
    state = status == KELVODRIX_OK ? kAccepted : kRefused;
    expect(status == KELVODRIX_OK || status == KELVODRIX_ERR_NO_RECEIVER || status == KELVODRIX_ERR_WINDOW ||
               (round.server != nullptr && status == KELVODRIX_ERR_SERVER),
           kelvodrix_strerror(status));
    if (status != KELVODRIX_OK || !round.one_by_one) continue;
    expect(kelvodrix_flush(handle, kLong, &undelivered) != KELVODRIX_ERR_PENDING, "a frame stays unanswered");
    expect(undelivered == lost || undelivered == lost + round.batch, "lost more than was under way");
    state = undelivered == lost ? kAcknowledged : kLost;
    lost = undelivered;
  }
  const int32_t status = kelvodrix_close(handle, kLong, &undelivered);
  account->undelivered = undelivered;
  return status != KELVODRIX_OK && status != KELVODRIX_ERR_LOST;
}

pid_t start(const std::function<int()> &process) {
  const pid_t pid = fork();
  if (pid != 0) return pid;
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  _exit(process());
}

void end(pid_t process, int signal, const char *what) {
  if (signal != 0) kill(process, signal);
  int status = 0;
  waitpid(process, &status, 0);
  expect(signal == SIGKILL ? status == SIGKILL || status == 0 : status == 0, what);
}

struct Totals {
  uint64_t sent = 0, handled = 0, undelivered = 0;
};

// Holds what the sender knows against what the receivers have handled.
void settle(const Round &round, Totals &totals) {
  uint64_t accepted = 0, handled = 0;  // messages of the sender that has lived to the end
  uint32_t gaps = 0, in_part = 0, first = round.event == kSenderDies ? account->second_sender.load() : 0;
  bool in_gap = false;
  for (uint32_t i = 0; i < account->frames; ++i) {
    const State state = account->frame[i].state;
    const uint32_t got = account->frame[i].handled;
    if (i == first) in_gap = false, gaps = 0;  // another connection
    if (state == kRefused || state == kNone) {
      expect(got == 0, "handled although the send failed");
      continue;
    }
    expect(state != kAcknowledged || got == round.batch, "acknowledged and not handled");
    expect(got <= round.batch, "more messages than were sent");
    in_part += got != 0 && got != round.batch;
    if (got == 0 && !in_gap) ++gaps;
    in_gap = got == 0;
    // A socket loses its end and nothing else; only a restarted receiver goes on behind it.
    if (round.server == nullptr) {
      expect(gaps <= (round.receiver_dies() || i < first ? 1u : 0u), "frames missing from the middle");
      expect(round.receiver_dies() || got == 0 || gaps == 0, "frames missing before others");
    }
    if (i >= first) accepted += round.batch, handled += got;
    totals.sent += round.batch, totals.handled += got;
  }
  const uint64_t acknowledged = accepted - account->undelivered;
  expect(in_part <= (round.receiver_dies() ? 1u : 0u), "frames handled in part");
  expect(account->undelivered <= accepted && acknowledged <= handled, "lost and not counted");
  const uint64_t most_more = round.receiver_dies() ? (kMostUnacknowledged + 1) * uint64_t{round.batch} : 0;
  const bool acknowledgements_lost = round.server != nullptr && round.event != kSenderDies;
  expect(acknowledgements_lost || handled <= acknowledged + most_more, "counted as lost although it was handled");
  totals.undelivered += account->undelivered;
}

void run(const Round &round, const std::string &at, Totals &totals) {
  std::memset(static_cast<void *>(account), 0, offsetof(Account, frame) + account->frames * sizeof(Account::Frame));
  account->second_sender = account->goes_on = kMostFrames;
  const auto receiving = [&] { return receive(at); };
  const auto sending = [&] { return send(at, round); };
  pid_t to = start(receiving), from = start(sending);
  usleep(round.delay_us);
  if (round.event == kReceiverDies) {
    end(to, SIGKILL, "a receiver failed");
    is_second = true;
    to = start(receiving);
    is_second = false;
  } else if (round.event == kSenderDies) {
    end(from, SIGKILL, "a sender failed");
    account->second_sender = account->frames.load();
    from = start(sending);
  } else if (round.event == kServerDies) {
    round.server->stop();
    round.server->start();
  } else {
    kill(to, SIGSTOP);
    sleep(kPause);
    kill(to, SIGCONT);
  }
  if (round.event != kReceiverDies) account->goes_on = account->frames.load();
  while (account->handled_after == 0 && account->wrong == 0 && account->frames < kMostFrames) usleep(200);
  account->done = true;
  end(from, 0, "a sender failed");
  end(to, SIGTERM, "a receiver failed");
  settle(round, totals);
}

}  // namespace

int main(int argc, char **argv) {
  std::map<std::string, uint32_t> options = {
      {"--kills", 20}, {"--seed", std::random_device()()}, {"--nats-kills", 0}, {"--nats-pauses", 0}};
  for (int i = 1; i + 1 < argc; i += 2)
    options[argv[i]] = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
  const uint32_t seed = options["--seed"], on_host = options["--kills"], kills = on_host + options["--nats-kills"];
  void *const shared = mmap(nullptr, sizeof(Account), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 1;
  account = new (shared) Account;
  char folder[] = "/tmp/bus_kills_XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;
  const std::string at = folder + std::string("/bus");

  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  const auto one_of = [&](std::initializer_list<uint32_t> values) { return values.begin()[random() % values.size()]; };
  Totals totals;
  std::unique_ptr<NatsServer> server;
  if (kills + options["--nats-pauses"] > on_host) {
    if (!NatsServer::installed()) return std::puts("left out: there is no nats-server (Debian: nats-server)"), 0;
    server = std::make_unique<NatsServer>();
  }
  uint32_t done = 0;
  for (; done < kills + options["--nats-pauses"] && account->wrong == 0; ++done) {
    Round round = {Event(one_of({kSenderDies, kReceiverDies})),
                   one_of({0, 1}) != 0,
                   one_of({2, 64, 4096}),
                   one_of({1, 7, 200}),
                   one_of({8, 5000}),
                   static_cast<uint32_t>(random() % one_of({2000, 20000})),
                   done < on_host ? nullptr : server.get()};
    if (round.server != nullptr) round.event = Event(one_of({kSenderDies, kReceiverDies, kServerDies}));
    if (round.server != nullptr) round.delay_us += 100000;  // for both to connect
    if (done >= kills) round = {kReceiverPauses, false, 4096, 7, 5000, 100000, server.get()};
    run(round, done < on_host ? at : server->address() + "/kills", totals);
  }
  std::printf("%u kills: %llu messages accepted or under way, %llu handled, %llu counted as undelivered\n", done,
              static_cast<unsigned long long>(totals.sent), static_cast<unsigned long long>(totals.handled),
              static_cast<unsigned long long>(totals.undelivered));
  server.reset();
  const bool clean = account->wrong == 0 && remove((at + ".lock").c_str()) != 0 && rmdir(folder) == 0;
  return clean ? 0 : 1;
}
