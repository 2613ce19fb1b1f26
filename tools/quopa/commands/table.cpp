// quopa table: the entries that there were at a time, by all that was told of them until then.
#include <algorithm>
#include <iostream>

#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/entry.h"
#include "tools/quopa/input.h"
#include "tools/quopa/show.h"

namespace quopa {
namespace {

// The tables of processes, as far as they are told of: what each received, unless nothing was or what was sent is asked for.
class Snapshot {
 public:
  explicit Snapshot(const TableOptions &options)
      : options_(options),
        styles_(read_labels(options.selection.labels), options.ipv6),
        tellings_(options.selection, styles_),
        conditions_(options.selection, styles_),
        lines_(options.selection.paths, styles_) {}

  int run() {
    tellings_.read(options_.selection.paths, moment_of("--at", options_.at), [this](const Told &told) { take(told); });
    conditions_.expect_fitting(tellings_.tables());
    if (tellings_.tellers().empty()) complain("no message tells of a table");
    const bool has_received = std::any_of(tellings_.tellers().begin(), tellings_.tellers().end(),
                                          [](const Teller &teller) { return !teller.is_sent(); });
    for (const Teller &teller : tellings_.tellers()) {
      if (!has_received || !teller.is_sent()) show(teller);
    }
    tellings_.complain_of_gaps();
    return tellings_.is_whole() ? kGood : kBad;
  }

 private:
  struct Kept {
    Table table;
    uint64_t messages = 0;
    uint64_t unknown = 0;  // deletions of what was not there
    uint64_t first = 0;
    uint64_t last = 0;
    uint64_t packet = 0;
  };

  void take(const Told &told) {
    const std::size_t number = told.mark.source->teller->number;
    if (number >= kept_.size()) kept_.resize(number + 1);
    Kept &kept = kept_[number];
    if (kept.messages == 0) kept.first = told.mark.time;
    if (kept.packet != told.mark.packet || kept.last != told.mark.time || kept.messages == 0) ++kept.messages;
    kept.last = told.mark.time;
    kept.packet = told.mark.packet;
    const auto effect = kept.table.take(told.telling, told.key, told.image, told.mark);
    kept.unknown += effect == drix::inspect::Effect::missed;
  }

  void show(const Teller &teller) {
    const Kept &kept = kept_[teller.number];
    uint64_t shown = 0;
    for (const Row *row : kept.table.sorted()) {
      const Row &entry = *row;
      if (!conditions_.hold(entry)) continue;
      ++shown;
      if (options_.json) {
        std::cout << '{';
        lines_.begin_json(std::cout, entry.changed);
        std::cout << ',';
        lines_.show_key_json(std::cout, *entry.telling->table, entry.key());
        std::cout << ',';
        lines_.show_record_json(std::cout, entry);
        std::cout << '}';
      } else {
        lines_.begin(std::cout, entry.changed);
        lines_.show_key(std::cout, *entry.telling->table, entry.key());
        lines_.show_members(std::cout, entry);
      }
      std::cout << '\n';
    }
    summarize(teller, kept, shown);
  }

  // What was there before the capture is what it cannot know.
  void summarize(const Teller &teller, const Kept &kept, uint64_t shown) const {
    const uint64_t first = tellings_.first();
    if (options_.json) {
      std::cout << "{\"program\":" << json_string(teller.program) << ",\"process\":" << teller.process
                << ",\"direction\":" << (teller.is_sent() ? "\"sent\"" : "\"received\"") << ",\"entries\":" << shown
                << ",\"messages\":" << kept.messages << ",\"unknown_before\":" << seconds_text(first)
                << ",\"until\":" << seconds_text(kept.last) << ",\"deleted_unknown\":" << kept.unknown << "}\n";
      return;
    }
    std::cout << shown << (shown == 1 ? " entry" : " entries") << ", from " << kept.messages << " messages that "
              << who(teller) << (teller.is_sent() ? " sent" : " received") << " until " << time_text(kept.last, true)
              << ";\n"
              << "what was there before " << time_text(first, true) << " is not known";
    if (kept.unknown > 0) std::cout << "; deletions of what may have been there: " << kept.unknown;
    std::cout << '\n';
  }

  const TableOptions &options_;
  Styles styles_;
  Tellings tellings_;
  Conditions conditions_;
  Lines lines_;
  std::vector<Kept> kept_;  // by tellers
};

}  // namespace

int table(const TableOptions &options) { return Snapshot(options).run(); }

}  // namespace quopa
