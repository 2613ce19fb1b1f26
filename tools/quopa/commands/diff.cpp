// quopa diff: in what two tables differ: of two moments, of a sender and receivers, or of a capture and a printed one.
#include <filesystem>
#include <iostream>

#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/entry.h"
#include "tools/quopa/input.h"
#include "tools/quopa/printed_routes.h"
#include "tools/quopa/show.h"

namespace quopa {
namespace {

// A capture, and until when it counts.
struct Side {
  explicit Side(const std::string &text) : path(text) {
    const std::size_t at = text.rfind('@');
    std::error_code error;
    if (at == std::string::npos || std::filesystem::exists(text, error)) return;
    path = text.substr(0, at);
    until = moment_of("the time behind @:", text.substr(at + 1));
  }

  std::string path;
  std::optional<Moment> until;
};

class Differing {
 public:
  explicit Differing(const DiffOptions &options)
      : options_(options),
        here_(options.here),
        there_(options.there),
        styles_(read_labels(options.selection.labels), options.ipv6),
        tellings_(options.selection, styles_),
        conditions_(options.selection, styles_),
        printed_(read_printed_routes(options.there)),
        lines_(options.there.empty() || printed_ ? std::vector{here_.path} : std::vector{here_.path, there_.path},
               styles_) {}

  int run() {
    if (printed_) {
      compare_printed();
    } else {
      options_.there.empty() ? compare_ways() : compare_sides();
    }
    conditions_.expect_fitting(tellings_.tables());
    tellings_.complain_of_gaps();
    return tellings_.is_whole() && is_same_ ? kGood : kBad;
  }

 private:
  // What was sent, with what each process received of it.
  void compare_ways() {
    Table sent;
    std::vector<Table> received;  // by tellers
    tellings_.read({here_.path}, here_.until, [&](const Told &told) {
      const Teller &teller = *told.mark.source->teller;
      if (received.size() <= teller.number) received.resize(teller.number + 1);
      (teller.is_sent() ? sent : received[teller.number]).take(told.telling, told.key, told.image, told.mark);
    });
    if (std::all_of(tellings_.tellers().begin(), tellings_.tellers().end(),
                    [](const Teller &teller) { return teller.is_sent(); })) {
      throw BadInput(name_of(here_.path) + ": nothing was received that tells of a table; name the other capture");
    }
    for (const Teller &teller : tellings_.tellers()) {
      if (teller.is_sent()) continue;
      tell(sent, received[teller.number], who(teller) + ": ");
    }
  }

  void compare_sides() {
    const Table here = read(here_);
    const Table there = read(there_);
    tell(here, there, "");
  }

  // Entries of one route are its next hops. Those that stand in groups are not in the entry itself, and are taken as
  // they are printed.
  void compare_printed() {
    const Table here = read(here_);
    std::map<Route, std::pair<NextHops, const Row *>> routes;
    for (const Row *entry : here.sorted()) {
      const auto route = route_of(*entry, styles_.own().labels);
      if (!route || !conditions_.hold(*entry)) continue;
      auto &[next_hops, row] = routes[route->route];
      next_hops.insert(route->next_hop);
      row = entry;
    }
    if (routes.empty()) {
      throw BadInput(
          name_of(here_.path) + ": no routes to compare with those of " + options_.there +
          "; --labels says which members are destination, prefix_length, metric and next_hop_0 to next_hop_3");
    }
    for (const auto &[route, entry] : routes) {
      const auto &[next_hops, row] = entry;
      const auto found = printed_->find(route);
      if (found == printed_->end()) {
        missing_there_ += tell_missing(true, *row);
      } else if (next_hops != found->second && !(next_hops == NextHops{"::"} && found->second.size() > 1)) {
        ++differing_;
        tell_differences(*row, {{"next_hop", joined(next_hops), joined(found->second), false}}, nullptr);
      }
    }
    for (const auto &[route, next_hops] : *printed_) {
      if (routes.count(route) > 0 || !options_.selection.where.empty()) continue;
      ++missing_here_;
      const std::string text = route.text();
      if (options_.json) {
        std::cout << "{\"difference\":\"missing here\",\"key\":" << json_string(text) << "}\n";
      } else {
        std::cout << "missing here: " << text << " next_hop=" << joined(next_hops) << '\n';
      }
    }
    summarize(routes.size(), printed_->size(), "");
    is_same_ = missing_here_ + missing_there_ + differing_ == 0;
  }

  static std::string joined(const NextHops &next_hops) {
    std::string text;
    for (const std::string &next_hop : next_hops) text += (text.empty() ? "" : ",") + next_hop;
    return text;
  }

  // What was received, unless nothing was.
  Table read(const Side &side) {
    Table sent, received;
    bool has_received = false;
    tellings_.read({side.path}, side.until, [&](const Told &told) {
      const bool is_sent = told.mark.source->teller->is_sent();
      has_received = has_received || !is_sent;
      (is_sent ? sent : received).take(told.telling, told.key, told.image, told.mark);
    });
    return has_received ? std::move(received) : std::move(sent);
  }

  void tell(const Table &here, const Table &there, const std::string &who) {
    const auto rows = here.sorted();
    const auto other_rows = there.sorted();
    missing_there_ = missing_here_ = differing_ = 0;
    auto a = rows.begin();
    auto b = other_rows.begin();
    while (a != rows.end() || b != other_rows.end()) {
      if (b == other_rows.end() || (a != rows.end() && (*a)->key() < (*b)->key())) {
        missing_there_ += tell_missing(true, **a++);
      } else if (a == rows.end() || (*b)->key() < (*a)->key()) {
        missing_here_ += tell_missing(false, **b++);
      } else {
        differing_ += tell_differing(**a++, **b++);
      }
    }
    summarize(here.size(), there.size(), who);
    is_same_ = is_same_ && missing_here_ + missing_there_ + differing_ == 0;
  }

  bool tell_missing(bool there, const Row &entry) {
    const char *const what = there ? "missing there" : "missing here";
    if (!conditions_.hold(entry)) return false;
    if (options_.json) {
      std::cout << "{\"difference\":\"" << what << "\",";
      lines_.show_key_json(std::cout, *entry.telling->table, entry.key());
      std::cout << ",\"" << (there ? "here" : "there") << "\":";
      show_side(entry);
      std::cout << "}\n";
    } else {
      std::cout << what << ": ";
      lines_.begin(std::cout, entry.changed);
      lines_.show_key(std::cout, *entry.telling->table, entry.key());
      lines_.show_members(std::cout, entry);
      std::cout << '\n';
    }
    return true;
  }

  bool tell_differing(const Row &entry, const Row &other) {
    if (entry.telling == other.telling && entry.image() == other.image()) return false;
    if (!conditions_.hold(entry) && !conditions_.hold(other)) return false;
    const auto found = differences(entry, other);
    if (!found.empty()) tell_differences(entry, found, &other);
    return !found.empty();
  }

  // other: null when it is in no packet.
  void tell_differences(const Row &entry, const std::vector<Difference> &found, const Row *other) const {
    if (options_.json) {
      std::cout << "{\"difference\":\"differs\",";
      lines_.show_key_json(std::cout, *entry.telling->table, entry.key());
      std::cout << ',';
      lines_.show_json(std::cout, found);
      std::cout << ",\"here\":";
      show_side(entry);
      if (other != nullptr) {
        std::cout << ",\"there\":";
        show_side(*other);
      }
      std::cout << "}\n";
    } else {
      std::cout << "differs: ";
      lines_.begin(std::cout, entry.changed);
      lines_.show_key(std::cout, *entry.telling->table, entry.key());
      std::cout << ':';
      lines_.show(std::cout, found);
      if (other != nullptr) lines_.show_packet(std::cout << " in ", other->changed);
      std::cout << '\n';
    }
  }

  void show_side(const Row &entry) const {
    std::cout << '{';
    lines_.begin_json(std::cout, entry.changed);
    std::cout << ',';
    lines_.show_record_json(std::cout, entry);
    std::cout << '}';
  }

  void summarize(std::size_t here, std::size_t there, const std::string &who) const {
    if (options_.json) {
      std::cout << "{\"here\":" << here << ",\"there\":" << there << ",\"missing_there\":" << missing_there_
                << ",\"missing_here\":" << missing_here_ << ",\"differing\":" << differing_ << "}\n";
    } else {
      std::cout << who << here << " entries here, " << there << " there: " << missing_there_ << " missing there, "
                << missing_here_ << " missing here, " << differing_ << " differ\n";
    }
  }

  const DiffOptions &options_;
  Side here_;
  Side there_;
  Styles styles_;
  Tellings tellings_;
  Conditions conditions_;
  std::optional<Routes> printed_;
  Lines lines_;
  uint64_t missing_there_ = 0;
  uint64_t missing_here_ = 0;
  uint64_t differing_ = 0;
  bool is_same_ = true;
};

}  // namespace

int diff(const DiffOptions &options) { return Differing(options).run(); }

}  // namespace quopa
