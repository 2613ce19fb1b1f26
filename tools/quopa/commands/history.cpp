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

using drix::inspect::Effect;

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
    Table table;  // of one entry at most
    const drix::inspect::Telling *telling = nullptr;
    uint64_t repeats = 0;  // of what was there as it is
    Mark last;
  };
  using Place = std::pair<std::size_t, std::string>;  // the number of the teller, and the key

  void take(const Told &told) {
    State &state = states_[{told.mark.source->teller->number, told.key}];
    Row former = {};
    const Effect effect = state.table.take(told.telling, told.key, told.image, told.mark, &former);
    state.telling = &told.telling;
    if (effect == Effect::kept) {
      ++state.repeats;
      state.last = told.mark;
      return;
    }
    tell_repeats(told.key, state);
    switch (effect) {
      case Effect::added:
        return tell_added(told, state);
      case Effect::changed:
        return tell_changed(told, former, state);
      case Effect::deleted:
        return tell(told.mark, told.telling, told.key, "deleted");
      default:
        return tell(told.mark, told.telling, told.key, "deleted, but not known before");
    }
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

  void tell(const Mark &mark, const drix::inspect::Telling &telling, const std::string &key, const char *what) const {
    begin(mark, telling, key, what);
    end();
  }

  void tell_added(const Told &told, const State &state) const {
    begin(told.mark, told.telling, told.key, "added");
    const Row &entry = *state.table.sorted().front();
    if (options_.json) {
      std::cout << ',';
      lines_.show_record_json(std::cout, entry);
    } else {
      lines_.show_members(std::cout, entry);
    }
    end();
  }

  void tell_changed(const Told &told, const Row &former, const State &state) const {
    begin(told.mark, told.telling, told.key, "changed");
    const auto found = differences(former, *state.table.sorted().front());
    if (options_.json) {
      std::cout << ',';
      lines_.show_json(std::cout, found);
    } else {
      lines_.show(std::cout, found);
    }
    end();
  }

  void tell_repeats(const std::string &key, State &state) const {
    if (state.repeats == 0) return;
    begin(state.last, *state.telling, key, "repeated");
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
