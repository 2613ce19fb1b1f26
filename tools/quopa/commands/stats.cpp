// quopa stats: how many messages of which type, and what became of them.
#include <iomanip>
#include <iostream>
#include <map>
#include <optional>

#include "capture/timeline.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/input.h"
#include "tools/quopa/selection.h"
#include "tools/quopa/show.h"
#include "tools/quopa/tap.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

struct Tally {
  uint64_t messages = 0;
  uint64_t bytes = 0;
  uint64_t failed = 0;
  uint64_t unanswered = 0;
  uint64_t rejected = 0;

  void add(Look &look) {
    const Message &message = look.message();
    ++messages;
    bytes += message.length;
    unanswered += message.status == TRACE_NO_ANSWER;
    failed += message.has_failed() && message.status != TRACE_NO_ANSWER;
    rejected += look.is_rejected();
  }

  void add(const Tally &other) {
    messages += other.messages;
    bytes += other.bytes;
    failed += other.failed;
    unanswered += other.unanswered;
    rejected += other.rejected;
  }
};

struct Key {
  std::string type;
  TraceKind kind;
  auto operator<=>(const Key &) const = default;
};

class Statistics {
 public:
  void take(Look &look) {
    const Message &message = look.message();
    if (first_ == 0 || message.time < first_) first_ = message.time;
    last_ = std::max(last_, message.time);
    tallies_[{type_name(message), message.kind}].add(look);
  }

  void print_text() const {
    std::cout << "TYPE                                         WAY         MESSAGES        BYTES   FAILED  NO ANSWER  "
                 "REJECTED\n";
    Tally total;
    for (const auto &[kind, tally] : tallies_) {
      print_row(kind.type, kind.kind == TRACE_SENT ? "sent" : "received", tally);
      total.add(tally);
    }
    print_row("total", "", total);
    if (total.messages == 0) return;
    std::cout << "from " << time_text(first_, true) << " to " << time_text(last_, true) << ", "
              << seconds_text(last_ - first_) << " s\n";
  }

  void print_json() const {
    for (const auto &[kind, tally] : tallies_) {
      std::cout << "{\"type\":\"" << kind.type << "\",\"direction\":\""
                << (kind.kind == TRACE_SENT ? "sent" : "received") << "\",\"messages\":" << tally.messages
                << ",\"bytes\":" << tally.bytes << ",\"failed\":" << tally.failed
                << ",\"unanswered\":" << tally.unanswered << ",\"rejected\":" << tally.rejected << "}\n";
    }
  }

 private:
  static void print_row(const std::string &type, const char *way, const Tally &tally) {
    std::cout << std::left << std::setw(44) << type << ' ' << std::setw(8) << way << std::right << std::setw(12)
              << tally.messages << std::setw(13) << tally.bytes << std::setw(9) << tally.failed << std::setw(11)
              << tally.unanswered << std::setw(10) << tally.rejected << '\n';
  }

  std::map<Key, Tally> tallies_;
  uint64_t first_ = 0;
  uint64_t last_ = 0;
};

}  // namespace

int stats(const StatsOptions &options) {
  Styles styles(read_labels(options.selection.labels), false);
  Selection selection(options.selection);
  Statistics statistics;
  const bool taps = has_endpoint(options.selection.paths, options.selection.tap);
  if (options.selection.tap.follow && !taps) throw BadUsage("-f goes with endpoints; \"quopa trace\" follows folders");
  if (taps) selection.expect_fitting(styles);  // there may be no end
  capture::Timeline timeline(options.selection.paths, complain, opener(options.selection));
  std::optional<Progress> progress(std::in_place);
  uint64_t taken = 0;
  while (taken < options.count) {
    const Message *const message = timeline.next();
    if (message == nullptr) break;
    progress->step();
    if (message->kind == TRACE_NOTE) {
      Progress::clear();
      show_note(std::cout, *message, options.json);
      continue;
    }
    Look look(*message);
    if (!selection.takes(look, styles)) continue;
    ++taken;
    statistics.take(look);
  }
  progress.reset();
  selection.expect_fitting(styles);
  options.json ? statistics.print_json() : statistics.print_text();
  return timeline.is_whole() ? kGood : kBad;
}

}  // namespace quopa
