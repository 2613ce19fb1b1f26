// Receives the soak's records and compares every member with what was sent, see soak_record.h. Ends with the stream, or
// with SIGINT or SIGTERM; succeeds only when the stream arrived whole and unchanged.
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string>
#include <string_view>

#include "drix_message.hpp"
#include "process.h"
#include "receiver.h"
#include "soak_record.h"
#include "stream_account.h"

namespace {

constexpr uint32_t kMaxReports = 10;  // the first faults are told one by one, all are counted

// The subscriber of all message types.
class Soak {
 public:
  explicit Soak(Receiver &receiver) : receiver_(receiver) {
    for (const soak::Type *type : drix::describe::types()) {
      if (tallies_.empty() || tallies_.back().package != type->package) tallies_.push_back({.package = type->package});
      expected_.push_back({*this, *type, tallies_.back(), expected_.size() + 1});
      receiver_.subscribe(type->id, take_record, &expected_.back());
    }
  }
  Soak(const Soak &) = delete;
  Soak &operator=(const Soak &) = delete;

  // Prints the summary; throws when the stream did not arrive whole and unchanged.
  void conclude() const {
    Tally total = {};
    for (const Tally &tally : tallies_) {
      total.records += tally.records;
      total.time += tally.time;
      print(tally, " of " + std::string(tally.package) + ":");
    }
    print(total, ":");
    receiver_.conclude(account_);
  }

 private:
  struct Tally {
    std::string_view package;
    uint64_t records = 0;
    Clock::duration time = {};  // since the message before each record was done
  };

  // A message type and its turn in a round.
  struct Expected {
    Soak &soak;
    const soak::Type &type;
    Tally &tally;
    uint64_t index;  // 0 is the mark
  };

  static void take_record(void *context, uint32_t, const void *record, uint32_t) {
    const Expected &expected = *static_cast<const Expected *>(context);
    expected.soak.take(expected, record);
  }

  static void print(const Tally &tally, const std::string &what) {
    const double seconds = std::chrono::duration<double>(tally.time).count();
    std::printf("received%s %s\n", what.c_str(), format_rate(tally.records, "records", seconds).c_str());
  }

  void take(const Expected &expected, const void *record) {
    if (expected.type.id == soak::kMarkMessageId) {
      if (const auto mark = soak::read_mark(*static_cast<const fib6Sync_svcCtxMsg *>(record))) return take(*mark);
    }
    const std::string member = soak::first_difference(expected.type, round_, record);
    const uint64_t number = number_of(expected.index);
    if (!member.empty()) report(expected, "differs in " + member);
    if (number != account_.last() + 1) report(expected, "is out of turn");
    account_.take(number, !member.empty());
    ++expected.tally.records;
    progress_.report(number);
    const Clock::time_point now = Clock::now();
    expected.tally.time += now - last_;
    last_ = now;
  }

  void take(const soak::Mark &mark) {
    round_ = mark.round;
    account_.take(number_of(0), false);
    last_ = Clock::now();
    if (mark.end) {
      account_.end();
      receiver_.stop();
    }
  }

  void report(const Expected &expected, const std::string &fault) {
    if (++reports_ > kMaxReports) return;
    std::printf("%s %s, round %u of seed %u\n", expected.type.name().c_str(), fault.c_str(), round_.number,
                round_.seed);
  }

  // The number of a message of this round in the stream.
  uint64_t number_of(uint64_t index) const { return uint64_t{round_.number - 1} * (expected_.size() + 1) + index + 1; }

  Receiver &receiver_;
  std::deque<Tally> tallies_;  // one a package; neither these nor what is expected moves
  std::deque<Expected> expected_;
  StreamAccount account_;
  uint32_t reports_ = 0;
  Progress progress_{"soak_receiver", "messages"};
  soak::Round round_ = {.seed = 0, .number = 1};
  Clock::time_point last_ = Clock::now();  // when the last message was done
};

struct Options {
  std::string endpoint = soak::kDefaultEndpoint;

  void add_to(CommandLine &line) { line.option("--endpoint", endpoint, "where to receive"); }
};

void run(const Options &options) {
  for (const auto init : {fib6_cfg_recv_init, fib6_recv_init, fib6_sync_recv_init}) {
    check(init(), "cannot register the decoders");
  }
  Receiver receiver(options.endpoint);
  Soak soak(receiver);
  receiver.run();
  soak.conclude();
}

}  // namespace

int main(int argc, char **argv) {
  return run_process("soak_receiver", "Receives random records of every message type over the bus and checks them.",
                     argc, argv, run);
}
