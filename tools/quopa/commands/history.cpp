// quopa history: all that happened to the entries of a key.
#include <iostream>
#include <map>

#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/entry.h"
#include "tools/quopa/input.h"
#include "tools/quopa/show.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

class History {
 public:
  explicit History(const HistoryOptions &options)
      : options_(options),
        styles_(read_labels(options.selection.labels), options.ipv6),
        tellings_(options.selection, styles_),
        filter_(options.key, tellings_.tables(), styles_.own().labels),
        lines_(options.selection.paths, styles_) {}

  int run() {
    tellings_.read(options_.selection.paths, std::nullopt, [this](const Told &told) {
      if (filter_.takes(*told.telling.table, told.key)) take(told);
    });
    for (auto &[place, state] : states_) tell_repeats(place.second, state);
    tellings_.complain_of_gaps();
    if (states_.empty()) complain("nothing tells of " + options_.key);
    return states_.empty() || !tellings_.is_whole() ? kBad : kGood;
  }

 private:
  // What a process knows of a key.
  struct State {
    Row entry;
    bool is_there = false;
    uint64_t repeats = 0;  // of what was there as it is
    Mark last;
  };
  using Place = std::pair<std::size_t, std::string>;  // the number of the teller, and the key

  void take(const Told &told) {
    State &state = states_[{told.mark.source->teller->number, told.key}];
    Row entry = {&told.telling, told.mark, told.key, told.key.size()};
    if (!told.telling.deletes) entry.bytes += told.image;
    std::vector<Difference> changes;
    if (state.is_there && !told.telling.deletes) {
      changes = differences(state.entry, entry);
      if (changes.empty()) {
        ++state.repeats;
        state.last = told.mark;
        return;
      }
    }
    tell_repeats(told.key, state);
    const char *const what = !told.telling.deletes ? (state.is_there ? "changed" : "added")
                             : state.is_there      ? "deleted"
                                                   : "deleted, but not known before";
    begin(told.mark, told.telling, told.key, what);
    if (!changes.empty()) {
      options_.json ? lines_.show_json(std::cout << ',', changes) : lines_.show(std::cout, changes);
    } else if (!told.telling.deletes) {
      options_.json ? lines_.show_record_json(std::cout << ',', entry) : lines_.show_members(std::cout, entry);
    }
    end();
    state.is_there = !told.telling.deletes;
    state.entry = std::move(entry);
  }

  void begin(const Mark &mark, const drix::inspect::Telling &telling, const std::string &key, const char *what) const {
    Progress::clear();
    if (options_.json) {
      std::cout << '{';
      lines_.begin_json(std::cout, mark);
      std::cout << ',';
      lines_.show_key_json(std::cout, *telling.table, key);
      std::cout << ",\"event\":\"" << what << '"';
    } else {
      lines_.begin(std::cout, mark);
      lines_.show_key(std::cout, *telling.table, key);
      std::cout << ": " << what;
    }
  }

  void end() const { std::cout << (options_.json ? "}\n" : "\n"); }

  void tell_repeats(const std::string &key, State &state) const {
    if (state.repeats == 0) return;
    begin(state.last, *state.entry.telling, key, "repeated");
    options_.json ? std::cout << ",\"times\":" << state.repeats
                  : std::cout << " without a change, " << state.repeats << (state.repeats == 1 ? " time" : " times");
    state.repeats = 0;
    end();
  }

  const HistoryOptions &options_;
  Styles styles_;
  Tellings tellings_;
  KeyFilter filter_;
  Lines lines_;
  std::map<Place, State> states_;
};

}  // namespace

int history(const HistoryOptions &options) { return History(options).run(); }

}  // namespace quopa
