// Kills senders, receivers and the server of the bus at random moments and keeps account of every record: what the bus
// has promised about it, and what became of it. Fails at the first difference.
//
// bus_kills [--kills N] [--seed N] [--nats-kills N] [--nats-pauses N] [--stream-kills N] [--stream-pauses N]
//           [--leader-kills N]
//   --nats-kills   so many over a NATS server, which is killed too (default: 0)
//   --nats-pauses  so many receivers there stand still for longer than the server bears (default: 0)
//   --stream-kills, --stream-pauses  the same over a stream
//   --leader-kills  so often the leader of a stream in a cluster of three dies; in every other election, somebody else too
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
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

constexpr uint32_t kId = 7, kMostFrames = 1 << 18, kNobodysFrame = UINT32_MAX;
constexpr uint32_t kLong = 60000;  // ms; nothing takes that long
constexpr uint32_t kMostUnacknowledged = 64;
constexpr unsigned kPause = 12, kStreamPause = 3;  // s

// What the sender knows of a frame.
enum State : uint8_t { kNone, kUnderWay, kAccepted, kRefused, kAcknowledged, kLost };

enum Event : uint32_t { kSenderDies, kReceiverDies, kServerDies, kReceiverPauses, kLeaderDies };

struct Round {
  Event event;
  bool one_by_one;
  uint32_t window, batch, message_bytes, delay_us;
  NatsServer *server;  // null: on this host
  bool stream;
  Event also;  // in the election after a leader's death

  bool dies(Event who) const { return event == who || (event == kLeaderDies && also == who); }
  bool receiver_dies() const { return dies(kReceiverDies); }
};

struct Message {
  uint32_t frame, number;
};

// Shared by all processes; what one process has written when it is killed stays.
struct Account {
  std::atomic<uint32_t> frames, wrong;
  std::atomic<uint32_t> second_sender;  // its first frame
  std::atomic<uint64_t> undelivered;    // as the last sender says
  std::atomic<bool> receives;           // somebody does
  std::atomic<bool> done;               // the senders have sent enough
  std::atomic<uint32_t> goes_on;        // the first frame after the event
  std::atomic<uint32_t> handled_after, handled_before;
  struct Frame {
    std::atomic<State> state;
    std::atomic<uint32_t> handled;  // messages
  } frame[kMostFrames];
};
Account *account;
kelvodrix_receiver *receiver;
bool is_second;  // receiver
bool in_stream;

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

// Each message comes once and in order; those of two senders may mix. From a stream, a second receiver may get again
// what the first one has handled.
void handle(void *, uint32_t, const void *record, uint32_t) {
  static uint32_t last[2], next;
  const auto &message = *static_cast<const Message *>(record);
  if (message.frame >= kMostFrames) return expect(false, "a message that nobody sent");
  uint32_t &before = last[message.frame >= account->second_sender];
  expect(message.frame >= before, "frames out of order");
  if (message.frame != before) next = 0;
  before = message.frame;
  const uint32_t number = account->frame[message.frame].handled++;
  expect((in_stream && is_second ? next : number) == message.number, "messages of a frame twice or out of order");
  ++next;
  if (is_second || message.frame >= account->goes_on) ++account->handled_after;
  ++account->handled_before;
}

int receive(const std::string &at) {
  DRIX_RegIDLFuncHook(kId, decode, [](void *) {});
  int32_t created = KELVODRIX_ERR_SERVER;
  for (uint32_t tries = 0; tries < (in_stream ? kLong / 100 : 1) && created != KELVODRIX_OK; ++tries) {
    if (tries != 0) usleep(100000);  // there is an election
    created = kelvodrix_receiver_create(at.c_str(), &receiver);
  }
  expect(created == KELVODRIX_OK, kelvodrix_strerror(created));
  if (created != KELVODRIX_OK) return 1;
  kelvodrix_subscribe(receiver, kId, handle, nullptr);
  signal(SIGTERM, [](int) { kelvodrix_stop(receiver); });
  account->receives = true;
  const int32_t ran = kelvodrix_run(receiver);
  expect(ran == KELVODRIX_OK, kelvodrix_strerror(ran));
  return ran != KELVODRIX_OK || kelvodrix_receiver_destroy(receiver) != KELVODRIX_OK;
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
  const bool another_comes = round.dies(kSenderDies) && account->second_sender == kNobodysFrame;
  const uint32_t most = another_comes ? kMostFrames / 2 : kMostFrames;
  while (!account->done) {
    if (account->frames == most) {
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
    if (round.event == kReceiverPauses && round.stream) usleep(100);  // or the stream is full before it goes on
    if (status != KELVODRIX_OK || !round.one_by_one) continue;
    expect(kelvodrix_flush(handle, kLong, &undelivered) != KELVODRIX_ERR_PENDING, "a frame stays unanswered");
    expect(undelivered == lost || undelivered == lost + round.batch, "lost more than was under way");
    state = undelivered == lost ? kAcknowledged : kLost;
    expect(!round.stream || account->frame[number].handled >= round.batch, "acknowledged before it was handled");
    lost = undelivered;
  }
  if (round.stream) {
    expect(kelvodrix_flush(handle, kLong, &undelivered) == KELVODRIX_OK && undelivered == 0,
           "not all has been handled");
    expect(kelvodrix_checkpoint(handle) == KELVODRIX_OK, "no checkpoint");
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
  uint64_t sent = 0, handled = 0, undelivered = 0, twice = 0;
  double longest = 0;  // s from an event to the first frame after it
};

// Nothing that one who sends to a stream has got rid of is lost while it lives, and of another one's the end only.
void settle_stream(const Round &round, Totals &totals) {
  const uint32_t second = account->second_sender;
  bool ended = false;
  for (uint32_t i = 0; i < account->frames; ++i) {
    const State state = account->frame[i].state;
    const uint32_t got = account->frame[i].handled;
    if (i == second) ended = false;
    if (state == kRefused || state == kNone) {
      expect(got == 0, "handled although the send failed");
      continue;
    }
    expect(got == 0 || !ended, "frames missing from the middle");
    ended |= got == 0;
    expect(got >= round.batch || (got == 0 && state != kAcknowledged && i < second && second != kNobodysFrame),
           "accepted and not handled");
    expect(got <= round.batch || round.receiver_dies(), "handled twice although no receiver died");
    totals.sent += round.batch, totals.handled += got;
    totals.twice += got > round.batch;
  }
  expect(account->undelivered == 0, "counted as lost");
}

// Holds what the sender knows against what the receivers have handled.
void settle(const Round &round, Totals &totals) {
  if (round.stream) return settle_stream(round, totals);
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

using NatsServers = std::vector<std::unique_ptr<NatsServer>>;

// Three that form a cluster when they know each other.
NatsServers make_servers(uint32_t count) {
  NatsServers servers;
  std::vector<std::string> ports;
  std::string routes;
  for (uint32_t i = 0; i < count; ++i) ports.push_back(NatsServer::free_port());
  for (const std::string &port : ports) routes += "nats://127.0.0.1:" + port + ',';
  for (uint32_t i = 0; i < count; ++i) {
    // One that stands still is given up soon.
    std::string lines = "ping_interval: \"1s\"\nping_max: 1\nserver_name: s" + std::to_string(i) + '\n';
    if (count != 1)
      lines += "cluster { name: kills, listen: \"127.0.0.1:" + ports[i] + "\", routes: [" + routes + "] }\n";
    servers.push_back(std::make_unique<NatsServer>(lines, "500ms"));
  }
  return servers;
}

NatsServer *leader_of(const NatsServers &servers) {
  const std::string answer = servers[0]->ask("$JS.API.STREAM.INFO.drix-kills"), word = "\"leader\":\"s";
  const size_t at = answer.find(word);
  return at != answer.npos ? servers[static_cast<size_t>(answer[at + word.size()] - '0')].get() : nullptr;
}

void run(const Round &round, const std::string &at, NatsServers &servers, Totals &totals) {
  std::memset(static_cast<void *>(account), 0, offsetof(Account, frame) + account->frames * sizeof(Account::Frame));
  account->second_sender = account->goes_on = kNobodysFrame;
  in_stream = round.stream;
  const auto receiving = [&] { return receive(in_stream ? at + "/receiver" : at); };
  const auto sending = [&] { return send(at, round); };
  pid_t to = start(receiving);
  // Or the sender of a stream need not wait for it, and it finds no server while that is dead or it stands still.
  const bool needs_server = round.event == kServerDies || round.event == kReceiverPauses;
  while ((in_stream || needs_server) && !account->receives && account->wrong == 0) usleep(1000);
  pid_t from = start(sending);
  for (uint32_t ms = 0; in_stream && account->handled_before == 0 && ms < kLong; ++ms) usleep(1000);
  usleep(round.delay_us);
  const auto begin = std::chrono::steady_clock::now();
  NatsServer *leader = nullptr;
  if (round.event == kLeaderDies) {
    while (leader == nullptr) leader = leader_of(servers);
    leader->stop();
    usleep(round.delay_us);
  }
  if (round.receiver_dies()) {
    end(to, SIGKILL, "a receiver failed");
    account->receives = false;
    is_second = true;
    to = start(receiving);
    is_second = false;
  } else if (round.dies(kSenderDies)) {
    end(from, SIGKILL, "a sender failed");
    account->second_sender = account->frames.load();
    from = start(sending);
  } else if (round.event == kServerDies) {
    round.server->stop();
    round.server->start();
  } else if (round.event == kReceiverPauses) {
    kill(to, SIGSTOP);
    sleep(round.stream ? kStreamPause : kPause);
    kill(to, SIGCONT);
  }
  if (leader != nullptr) {
    usleep(round.delay_us);
    leader->start();
  }
  if (!round.receiver_dies()) account->goes_on = account->frames.load();
  while (account->handled_after == 0 && account->wrong == 0 && account->frames < kMostFrames) usleep(200);
  totals.longest =
      std::max(totals.longest, std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count());
  account->done = true;
  end(from, 0, "a sender failed");
  while (!account->receives && account->wrong == 0) usleep(1000);  // the first one may have handled all before it died
  end(to, SIGTERM, "a receiver failed");
  settle(round, totals);
}

}  // namespace

int main(int argc, char **argv) {
  std::map<std::string, uint32_t> options = {{"--kills", 20},       {"--seed", std::random_device()()},
                                             {"--nats-kills", 0},   {"--nats-pauses", 0},
                                             {"--stream-kills", 0}, {"--stream-pauses", 0},
                                             {"--leader-kills", 0}};
  for (int i = 1; i + 1 < argc; i += 2)
    options[argv[i]] = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
  const uint32_t seed = options["--seed"];
  void *const shared = mmap(nullptr, sizeof(Account), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED) return 1;
  account = new (shared) Account;
  char folder[] = "/tmp/bus_kills_XXXXXX";
  if (mkdtemp(folder) == nullptr) return 1;
  const std::string socket = folder + std::string("/bus"), settings = folder + std::string("/settings");
  std::ofstream(settings) << "max_bytes=2000000000\n";
  setenv("KELVODRIX_NATS", settings.c_str(), 1);

  std::printf("seed %u\n", seed);
  std::mt19937 random(seed);
  const auto one_of = [&](std::initializer_list<uint32_t> values) { return values.begin()[random() % values.size()]; };
  const struct {
    const char *option;
    uint32_t servers;
    bool stream;
    std::initializer_list<uint32_t> events;
  } parts[] = {{"--kills", 0, false, {kSenderDies, kReceiverDies}},
               {"--nats-kills", 1, false, {kSenderDies, kReceiverDies, kServerDies}},
               {"--nats-pauses", 1, false, {kReceiverPauses}},
               {"--stream-kills", 1, true, {kSenderDies, kReceiverDies, kReceiverDies, kServerDies}},
               {"--stream-pauses", 1, true, {kReceiverPauses}},
               {"--leader-kills", 3, true, {kLeaderDies}}};
  for (const auto &part : parts) {
    const uint32_t count = options[part.option];
    if (count == 0) continue;
    if (part.servers != 0 && !NatsServer::installed()) {
      std::puts("left out: there is no nats-server (Debian: nats-server)");
      continue;
    }
    NatsServers servers = part.stream ? make_servers(part.servers) : NatsServers();
    if (part.servers != 0 && !part.stream) servers.push_back(std::make_unique<NatsServer>());
    std::string at = part.servers != 0 ? servers[0]->address(part.stream ? "nats-stream://" : "nats://") : socket;
    for (size_t i = 1; i < servers.size(); ++i) at += ',' + servers[i]->address("");
    if (part.servers != 0) at += "/kills";
    Totals totals;
    std::map<uint32_t, uint32_t> events;
    uint32_t done = 0;
    for (; done < count && account->wrong == 0; ++done) {
      Round round = {Event(one_of(part.events)),
                     one_of({0, 1}) != 0,
                     one_of({2, 64, 4096}),
                     one_of({1, 7, 200}),
                     one_of({8, 5000}),
                     static_cast<uint32_t>(random() % one_of({2000, 20000})),
                     part.servers != 0 ? servers[0].get() : nullptr,
                     part.stream,
                     Event(one_of({kSenderDies, kReceiverDies, kLeaderDies, kLeaderDies}))};
      if (part.servers != 0 && !part.stream) round.delay_us += 100000;  // for both to connect
      if (part.stream && round.batch == 200) round.message_bytes = 8;
      if (round.event == kLeaderDies) round.delay_us = static_cast<uint32_t>(random() % one_of({100000, 1500000}));
      if (round.event == kReceiverPauses) {
        round.one_by_one = false;
        round.window = 4096, round.batch = 7, round.message_bytes = part.stream ? 500 : 5000, round.delay_us = 100000;
      }
      ++events[round.event];
      if (round.event == kLeaderDies && round.also != kLeaderDies) ++events[round.also];
      run(round, at, servers, totals);
    }
    std::printf("%s %u: %u senders, %u receivers, %u servers, %u leaders died, %u receivers paused: ", part.option,
                done, events[kSenderDies], events[kReceiverDies], events[kServerDies], events[kLeaderDies],
                events[kReceiverPauses]);
    std::printf(
        "%llu messages accepted or under way, %llu handled, %llu counted as undelivered, %llu frames twice, "
        "%.1f s at most from a death to the next frame\n",
        static_cast<unsigned long long>(totals.sent), static_cast<unsigned long long>(totals.handled),
        static_cast<unsigned long long>(totals.undelivered), static_cast<unsigned long long>(totals.twice),
        totals.longest);
    std::fflush(stdout);
  }
  remove(settings.c_str());
  const bool clean = account->wrong == 0 && remove((socket + ".lock").c_str()) != 0 && rmdir(folder) == 0;
  return clean ? 0 : 1;
}
