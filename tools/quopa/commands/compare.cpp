// quopa compare: what became of the messages of a sender at receivers, and on the way through them.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <memory>
#include <set>
#include <unordered_map>

#include "capture/timeline.h"
#include "tools/quopa/arrivals.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/entry.h"
#include "tools/quopa/input.h"
#include "tools/quopa/show.h"
#include "tools/quopa/tap.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

// Where messages pass: what the processes of a capture sent, or received.
struct Point {
  std::string path;
  TraceKind kind;
};

// Captures are read several times, so what is at endpoints is written to files first.
class Recordings {
 public:
  explicit Recordings(CompareOptions &options) {
    std::vector<std::string> paths = options.receivers;
    paths.insert(paths.begin(), options.sender);
    std::vector<std::string> endpoints;
    std::copy_if(paths.begin(), paths.end(), std::back_inserter(endpoints), is_endpoint);
    endpoints.erase(std::unique(endpoints.begin(), endpoints.end()), endpoints.end());
    if (!has_endpoint(endpoints, options.tap) && options.tap.follow) throw BadUsage("-f goes with endpoints");
    for (std::size_t i = 0; i < paths.size(); ++i) {
      if (!is_endpoint(paths[i]) || options.tap.recorded.contains(paths[i])) continue;
      if (folder_.empty()) make_folder();
      const std::string file = folder_ + '/' + std::to_string(i) + TRACE_FILE_SUFFIX;
      is_whole_ = record(paths[i], i == 0 ? TRACE_SENT : TRACE_RECEIVED, options.tap, file) && is_whole_;
      options.tap.recorded[paths[i]] = file;
    }
  }
  Recordings(const Recordings &) = delete;
  Recordings &operator=(const Recordings &) = delete;
  ~Recordings() {
    std::error_code error;
    if (!folder_.empty()) std::filesystem::remove_all(folder_, error);
  }

  bool is_whole() const { return is_whole_; }

 private:
  void make_folder() {
    folder_ = std::filesystem::temp_directory_path() / "quopa-XXXXXX";
    if (::mkdtemp(folder_.data()) == nullptr) throw BadInput(folder_ + ": " + std::strerror(errno));
  }

  std::string folder_;
  bool is_whole_ = true;
};

SelectionOptions selection_of(const CompareOptions &options) {
  SelectionOptions selection;
  selection.tap = options.tap;
  return selection;
}

// Captures are read several times, so none may be a pipe.
void expect_files(const std::string &path) {
  for (const std::string &file : capture::captures_in(path)) {
    std::error_code error;
    const auto status = std::filesystem::status(file, error);
    if (file == "-" || (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)))
      throw BadUsage(name_of(file) + ": is compared, so it must be a file or a folder of files");
  }
}

// From one point to the next.
class Hop {
 public:
  Hop(const Point &from, const Point &to, const std::string &title, const CompareOptions &options, Styles &styles,
      std::set<std::string> &told)
      : from_(from), to_(to), title_(title), options_(options), styles_(styles), told_(told) {
    line_.has_color = wants_color(options.color);
  }
  virtual ~Hop() = default;

  // Whether all that was sent was received, and nothing else.
  bool run() {
    if (!title_.empty() && !options_.json) std::cout << title_ << ":\n";
    look_at_arrivals();
    look_at_sent();
    if (arrivals_.unmatched() > 0) look_at_rest();
    end();
    summarize(arrivals_.take_delays());
    return is_whole_ && missing_ + again_ + unsent_ + changed_ == 0;
  }

 protected:
  virtual void look_at_arrivals() = 0;
  virtual void look_at_sent() = 0;
  virtual void look_at_rest() = 0;  // of arrivals
  virtual void end() {}

  bool is_passage() const { return from_.kind == TRACE_RECEIVED && to_.kind == TRACE_SENT; }  // through a process
  const char *missing_text() const { return is_passage() ? "not sent on" : "not received"; }
  const char *again_text() const { return is_passage() ? "sent again" : "received again"; }
  const char *unsent_text() const { return is_passage() ? "sent but not received" : "received but not sent"; }

  // What an arrival that was not matched is.
  const char *count_rest(Arrivals::Origin origin) {
    const bool is_again = origin == Arrivals::Origin::sent_before;
    ++(is_again ? again_ : unsent_);
    return is_again ? again_text() : unsent_text();
  }

  // What a capture says of itself is said once.
  bool is_new(const std::string &path) { return told_.insert(path).second; }

  void begin_json(const char *difference) const {
    std::cout << "{\"difference\":\"" << difference << '"';
    if (!title_.empty()) std::cout << ",\"hop\":" << json_string(title_);
  }

  const Point &from_;
  const Point &to_;
  const std::string &title_;
  const CompareOptions &options_;
  Styles &styles_;
  std::set<std::string> &told_;
  LineStyle line_;
  Arrivals arrivals_;
  uint64_t sent_ = 0;
  uint64_t failed_ = 0;
  uint64_t received_ = 0;
  uint64_t missing_ = 0;
  uint64_t again_ = 0;
  uint64_t unsent_ = 0;
  uint64_t changed_ = 0;
  bool is_whole_ = true;

 private:
  void summarize(const std::vector<int64_t> &delays) const {
    constexpr std::pair<const char *, double> kParts[] = {{"least", 0},   {"half", 0.5},     {"90 %", 0.9},
                                                          {"99 %", 0.99}, {"99.9 %", 0.999}, {"most", 1}};
    const auto percentile = [&](double part) {
      return delays[static_cast<std::size_t>(part * static_cast<double>(delays.size() - 1))];
    };
    if (options_.json) {
      std::cout << '{';
      if (!title_.empty()) std::cout << "\"hop\":" << json_string(title_) << ',';
      std::cout << "\"sent\":" << sent_ << ",\"failed\":" << failed_ << ",\"received\":" << received_
                << ",\"not_received\":" << missing_ << ",\"received_again\":" << again_ << ",\"not_sent\":" << unsent_;
      if (options_.by_key) std::cout << ",\"changed\":" << changed_;
      std::cout << ",\"latency_ns\":[";
      for (const auto &[name, part] : kParts) {
        if (!delays.empty()) std::cout << (part > 0 ? "," : "") << percentile(part);
      }
      std::cout << "]}\n";
      return;
    }
    std::cout << sent_ << (from_.kind == TRACE_SENT ? " sent, " : " received, ") << received_
              << (to_.kind == TRACE_SENT ? " sent: " : " received: ") << missing_ << ' ' << missing_text() << ", "
              << again_ << ' ' << again_text() << ", " << unsent_ << ' ' << unsent_text();
    if (options_.by_key) std::cout << ", " << changed_ << " changed on the way";
    std::cout << '\n';
    if (failed_ > 0) std::cout << failed_ << " more could not be sent\n";
    if (delays.empty()) return;
    std::cout << "latency in us:";
    for (const auto &[name, part] : kParts) {
      std::cout << (part > 0 ? ", " : " ") << name << ' ' << percentile(part) / 1000;
    }
    std::cout << '\n';
  }
};

// Messages are the same when ID and bytes are.
class HopByBytes : public Hop {
 public:
  using Hop::Hop;

 private:
  static Hash hash_of(const Message &message) { return drix::inspect::hash(message.text(), message.id); }

  void look_at_arrivals() override {
    for_each(to_, true, [&](const Message &message) {
      if (!has_passed(message)) return;
      ++received_;
      arrivals_.add(hash_of(message), message.time);
    });
  }

  void look_at_sent() override {
    for_each(from_, true, [&](const Message &message) {
      if (!has_passed(message)) {
        ++failed_;
        return;
      }
      ++sent_;
      if (arrivals_.match(hash_of(message), message.time)) return;
      ++missing_;
      tell(missing_text(), message);
    });
  }

  void look_at_rest() override {
    for_each(to_, false, [&](const Message &message) {
      if (!has_passed(message)) return;
      const Arrivals::Origin origin = arrivals_.origin(hash_of(message));
      if (origin != Arrivals::Origin::matched) tell(count_rest(origin), message);
    });
  }

  void end() override {
    if (cut_ > 0) complain(std::to_string(cut_) + " messages were cut by the recorder and are not compared");
  }

  static bool has_passed(const Message &message) {
    return message.is_received() || !message.has_failed() || message.status == TRACE_NO_ANSWER;
  }

  template <class Take>
  void for_each(const Point &point, bool first_time, Take take) {
    const bool tells = first_time && is_new(point.path);
    capture::Timeline timeline(
        {point.path}, tells ? complain : [](const std::string &) {}, opener(selection_of(options_)));
    Progress progress;
    while (const Message *message = timeline.next()) {
      progress.step();
      if (message->kind == TRACE_NOTE && tells) show_note(std::cerr, *message, false);
      if (message->kind != point.kind) continue;
      if (!message->is_cut()) {
        take(*message);
      } else if (first_time) {
        ++cut_;
      }
    }
    is_whole_ = is_whole_ && timeline.is_whole();
  }

  void tell(const char *what, const Message &message) {
    Progress::clear();
    Look look(message);
    const drix::inspect::JsonStyle &style = styles_.of(*message.origin);
    if (options_.json) {
      begin_json(what);
      std::cout << ",\"message\":";
      show_json(std::cout, look, style);
      std::cout << "}\n";
    } else {
      std::cout << what << ": ";
      show_text(std::cout, look, style, line_);
      std::cout << '\n';
    }
  }

  uint64_t cut_ = 0;
};

// What messages tell of entries of tables, however they are encoded and put together. Entries that are the same in all
// their members go together first; then those of the same key, which were changed on the way.
class HopByKey : public Hop {
 public:
  HopByKey(const Point &from, const Point &to, const std::string &title, const CompareOptions &options, Styles &styles,
           std::set<std::string> &told)
      : Hop(from, to, title, options, styles, told),
        from_tellings_(selection(from, options), styles),
        to_tellings_(selection(to, options), styles),
        lines_({from.path, to.path}, styles) {}

 private:
  // That did not arrive as it was sent.
  struct Left {
    Row row;
    bool deletes;
    bool is_found;
  };

  static SelectionOptions selection(const Point &point, const CompareOptions &compared) {
    SelectionOptions options = selection_of(compared);
    options.sent = point.kind == TRACE_SENT;
    options.received = point.kind == TRACE_RECEIVED;
    return options;
  }

  // Of everything that is told.
  Hash hash_of(const Told &told) {
    whole_.assign(told.key);
    if (!told.telling.deletes) whole_.append(told.image);
    return drix::inspect::hash(whole_, uint64_t{told.key.size()} << 1 | told.telling.deletes);
  }

  void look_at_arrivals() override {
    read(to_tellings_, to_, [&](const Told &told) {
      ++received_;
      arrivals_.add(hash_of(told), told.mark.time);
    });
  }

  void look_at_sent() override {
    read(from_tellings_, from_, [&](const Told &told) {
      ++sent_;
      if (arrivals_.match(hash_of(told), told.mark.time)) return;
      by_key_[key_of(told)].push_back(left_.size());
      left_.push_back({row_of(told), told.telling.deletes, false});
    });
  }

  void look_at_rest() override {
    read(
        to_tellings_, to_,
        [&](const Told &told) {
          const Arrivals::Origin origin = arrivals_.origin(hash_of(told));
          if (origin == Arrivals::Origin::matched) return;
          const auto same = by_key_.find(key_of(told));
          if (same == by_key_.end() || same->second.empty())
            return tell(count_rest(origin), row_of(told), told.telling.deletes);
          Left &left = left_[same->second.front()];
          same->second.pop_front();
          left.is_found = true;
          ++changed_;
          tell_changed(left.row, row_of(told));
        },
        true);
  }

  void end() override {
    for (const Left &left : left_) {
      if (left.is_found) continue;
      ++missing_;
      tell(missing_text(), left.row, left.deletes);
    }
    from_tellings_.complain_of_gaps();
    to_tellings_.complain_of_gaps();
  }

  void read(Tellings &tellings, const Point &point, const Tellings::Take &take, bool is_again = false) {
    tellings.read({point.path}, std::nullopt, take, is_again || !is_new(point.path));
    is_whole_ = is_whole_ && tellings.is_whole();
  }

  static Row row_of(const Told &told) {
    Row row = {&told.telling, told.mark, told.key, told.key.size()};
    if (!told.telling.deletes) row.bytes += told.image;
    return row;
  }

  static std::string key_of(const Told &told) { return told.key + (told.telling.deletes ? '-' : '+'); }

  void tell(const char *what, const Row &row, bool deletes) const {
    Progress::clear();
    if (options_.json) {
      begin_json(what);
      std::cout << ',';
      lines_.begin_json(std::cout, row.changed);
      std::cout << ',';
      lines_.show_key_json(std::cout, *row.telling->table, row.key());
      std::cout << ',';
      deletes ? std::cout << "\"deletes\":true" : std::cout << "";
      if (!deletes) lines_.show_record_json(std::cout, row);
      std::cout << "}\n";
    } else {
      std::cout << what << ": ";
      lines_.begin(std::cout, row.changed);
      lines_.show_key(std::cout, *row.telling->table, row.key());
      if (deletes) std::cout << ": deleted";
      if (!deletes) lines_.show_members(std::cout, row);
      std::cout << '\n';
    }
  }

  void tell_changed(const Row &from, const Row &to) const {
    Progress::clear();
    const auto found = differences(from, to);
    if (options_.json) {
      begin_json("changed on the way");
      std::cout << ',';
      lines_.show_key_json(std::cout, *from.telling->table, from.key());
      std::cout << ',';
      lines_.show_json(std::cout, found);
      std::cout << ",\"from\":{";
      lines_.begin_json(std::cout, from.changed);
      std::cout << "},\"to\":{";
      lines_.begin_json(std::cout, to.changed);
      std::cout << "}}\n";
    } else {
      std::cout << "changed on the way: ";
      lines_.begin(std::cout, from.changed);
      lines_.show_key(std::cout, *from.telling->table, from.key());
      std::cout << ':';
      lines_.show(std::cout, found);
      std::cout << " in ";
      lines_.show_packet(std::cout, to.changed);
      std::cout << '\n';
    }
  }

  Tellings from_tellings_;
  Tellings to_tellings_;
  Lines lines_;
  std::string whole_;
  std::deque<Left> left_;
  std::unordered_map<std::string, std::deque<std::size_t>> by_key_;  // of what is left, in the order of sending
};

bool has_sent(const std::string &path, const CompareOptions &options) {
  capture::Timeline timeline(
      {path}, [](const std::string &) {}, opener(selection_of(options)));
  while (const Message *message = timeline.next()) {
    if (message->is_sent()) return true;
  }
  return false;
}

struct Way {
  Point from, to;
  std::string title;  // empty when there is only one
};

// From the sender to the first receiver, through it, to the next one, and so on.
std::vector<Way> ways_of(const CompareOptions &options) {
  if (options.receivers.empty()) return {{{options.sender, TRACE_SENT}, {options.sender, TRACE_RECEIVED}, ""}};
  std::vector<Way> ways;
  Point from = {options.sender, TRACE_SENT};
  for (std::size_t i = 0; i < options.receivers.size(); ++i) {
    const std::string &receiver = options.receivers[i];
    const bool is_only = options.receivers.size() == 1;
    ways.push_back({from, {receiver, TRACE_RECEIVED}, is_only ? "" : name_of(from.path) + " to " + name_of(receiver)});
    from = {receiver, TRACE_RECEIVED};
    if (i + 1 == options.receivers.size() || !has_sent(receiver, options)) continue;
    ways.push_back({from, {receiver, TRACE_SENT}, "through " + name_of(receiver)});
    from.kind = TRACE_SENT;
  }
  return ways;
}

}  // namespace

int compare(const CompareOptions &asked) {
  CompareOptions options = asked;
  const Recordings recordings(options);
  Styles styles(read_labels(options.labels), options.ipv6);
  std::set<std::string> told;
  for (const std::vector<std::string> &paths : {std::vector{options.sender}, options.receivers}) {
    for (const std::string &path : paths) {
      expect_files(path);
      if (!options.by_key && told.insert(path).second) tell_overwritten(path);
    }
  }
  told.clear();
  bool is_same = true;
  for (const Way &way : ways_of(options)) {
    std::unique_ptr<Hop> hop;
    if (options.by_key) {
      hop = std::make_unique<HopByKey>(way.from, way.to, way.title, options, styles, told);
    } else {
      hop = std::make_unique<HopByBytes>(way.from, way.to, way.title, options, styles, told);
    }
    is_same = hop->run() && is_same;
  }
  return is_same && recordings.is_whole() ? kGood : kBad;
}

}  // namespace quopa
