// quopa watch: follows what is recorded, and keeps what was around the moments in which rules hit.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cstring>
#include <deque>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <thread>
#include <unordered_map>

#include "capture/follower.h"
#include "capture/ring_file.h"
#include "capture/writer.h"
#include "describe/printable.h"
#include "inspect/hash.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/entry.h"
#include "tools/quopa/input.h"
#include "tools/quopa/interrupt.h"
#include "tools/quopa/moment.h"
#include "tools/quopa/show.h"

extern char **environ;

namespace quopa {
namespace {

using drix::inspect::Hash;

constexpr uint64_t kSecond = 1000000000;
constexpr std::chrono::milliseconds kLookAgain{20};  // between looks for what a process has sent
constexpr uint64_t kSettled = 2 * kSecond;           // after which nothing older is read any more
constexpr std::size_t kMostKeptBytes = 256 << 20;    // of messages
constexpr std::size_t kMessageCosts = 200;           // bytes besides its own
constexpr std::size_t kMostKnown = 1 << 20;          // entries, or messages under way
constexpr uint64_t kMostChanges = 1000;

struct HashByLow {
  std::size_t operator()(const Hash &hash) const { return static_cast<std::size_t>(hash.low); }
};

uint64_t duration_of(const std::string &what, const std::string &text) {
  try {
    return Moment('+' + text).in(0).first;
  } catch (const MomentError &) {
    throw BadUsage(what + ": " + json_string(text) + " is no duration; like 50ms, 5s or 2m");
  }
}

uint64_t now() {
  return static_cast<uint64_t>(
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::system_clock::now().time_since_epoch())
          .count());
}

// A message with all that it refers to.
class Kept {
 public:
  Kept(const Message &message, std::shared_ptr<const Origin> origin)
      : message_(message), origin_(std::move(origin)), payload_(message.payload.begin(), message.payload.end()) {
    message_.payload = payload_;
    message_.origin = origin_.get();
  }
  Kept(const Kept &) = delete;
  Kept &operator=(const Kept &) = delete;

  const Message &message() const { return message_; }
  std::size_t cost() const { return kMessageCosts + payload_.size(); }

 private:
  Message message_;
  std::shared_ptr<const Origin> origin_;
  std::vector<uint8_t> payload_;
};

// What was read last, within bounds.
class Memory {
 public:
  explicit Memory(uint64_t lasts) : lasts_(lasts) {}

  const std::shared_ptr<const Kept> &add(const Message &message) {
    messages_.push_back(std::make_shared<Kept>(message, origin_of(message)));
    bytes_ += messages_.back()->cost();
    newest_ = std::max(newest_, message.time);
    while (messages_.size() > 1 && (messages_.front()->message().time + lasts_ < newest_ || bytes_ > kMostKeptBytes)) {
      if (messages_.front()->message().time + lasts_ >= newest_ && !std::exchange(is_short_, true))
        complain("what is to be kept is more than 256 MiB: less than that time is kept");
      bytes_ -= messages_.front()->cost();
      messages_.pop_front();
    }
    return messages_.back();
  }

  uint64_t newest() const { return newest_; }

  template <class Take>
  void for_each_since(uint64_t time, Take take) const {
    for (const auto &kept : messages_) {
      if (kept->message().time >= time) take(kept->message());
    }
  }

 private:
  const std::shared_ptr<const Origin> &origin_of(const Message &message) {
    const Origin &origin = *message.origin;
    const auto is_it = [&](const std::shared_ptr<const Origin> &known) {
      return known->types == origin.types && known->process == origin.process && known->capture == origin.capture &&
             known->program == origin.program;
    };
    const auto known = std::find_if(origins_.rbegin(), origins_.rend(), is_it);
    if (known != origins_.rend()) return *known;
    std::erase_if(origins_, [](const auto &one) { return one.use_count() == 1; });
    return origins_.emplace_back(std::make_shared<Origin>(origin));
  }

  uint64_t lasts_;
  uint64_t newest_ = 0;
  std::size_t bytes_ = 0;
  bool is_short_ = false;
  std::deque<std::shared_ptr<const Kept>> messages_;
  std::vector<std::shared_ptr<const Origin>> origins_;
};

// When a rule has hit, and what there is to be said.
struct Hit {
  uint64_t time;
  std::string rule;
  std::string text;
};
using Hits = std::vector<Hit>;

class Rule {
 public:
  explicit Rule(std::string text) : text_(std::move(text)) {}
  virtual ~Rule() = default;

  // Told of every message that is chosen, and of the time before which there are no more.
  virtual void take(Look &look, const std::shared_ptr<const Kept> &kept, Hits &hits) = 0;
  virtual void settle(uint64_t, Hits &) {}
  virtual uint64_t lasts() const { return 0; }  // how long after a message it may hit

 protected:
  std::string text_;
};

std::string line_of(Look &look, Styles &styles) {
  std::ostringstream line;
  show_text(line, look, styles.of(*look.message().origin));
  return line.str();
}

// What one message shows.
class MessageRule final : public Rule {
 public:
  MessageRule(const std::string &text, const SelectionOptions &options, Styles &styles)
      : Rule(text), selection_(options), styles_(styles) {
    selection_.expect_fitting(styles);
  }

  void take(Look &look, const std::shared_ptr<const Kept> &, Hits &hits) override {
    if (selection_.takes(look, styles_)) hits.push_back({look.message().time, text_, line_of(look, styles_)});
  }

 private:
  Selection selection_;
  Styles &styles_;
};

// An entry of a table that is added, changed or deleted so many times within a time.
class ChangeRule final : public Rule {
 public:
  ChangeRule(const std::string &text, uint64_t changes, uint64_t within, const SelectionOptions &options,
             Styles &styles)
      : Rule(text), changes_(changes), within_(within), tellings_(tellings_of(options), styles), lines_({}, styles) {}

  void take(Look &look, const std::shared_ptr<const Kept> &, Hits &hits) override {
    tellings_.take(look.message(), [&](const Told &told) { take(told, hits); });
  }

 private:
  struct Entry {
    Hash image = {};
    std::deque<uint64_t> changes = {};  // the times of the last
  };

  static SelectionOptions tellings_of(const SelectionOptions &options) {
    SelectionOptions selection;
    selection.labels = options.labels;
    return selection;
  }

  void take(const Told &told, Hits &hits) {
    const Hash key = drix::inspect::hash(told.key, told.mark.source->teller->number);
    const Hash image = told.telling.deletes ? Hash() : drix::inspect::hash(told.image, 1);
    if (entries_.size() >= kMostKnown && !entries_.contains(key)) {
      entries_.clear();
      if (!std::exchange(has_forgotten_, true)) complain("more than a million entries: their changes are counted anew");
    }
    const auto [found, is_new] = entries_.try_emplace(key);
    Entry &entry = found->second;
    if (entry.image == image && (!is_new || told.telling.deletes)) return;
    entry.image = image;
    entry.changes.push_back(told.mark.time);
    if (entry.changes.size() > changes_) entry.changes.pop_front();
    const uint64_t first = entry.changes.front();
    if (entry.changes.size() < changes_ || told.mark.time > first + within_) return;
    entry.changes.clear();
    std::ostringstream line;
    line << drix::describe::printable(capture::short_path(told.mark.source->capture));
    lines_.begin(line, told.mark);
    lines_.show_key(line, *told.telling.table, told.key);
    line << " changed " << changes_ << " times in " << seconds_text(std::max(told.mark.time, first) - first) << " s";
    hits.push_back({told.mark.time, text_, line.str()});
  }

  uint64_t changes_;
  uint64_t within_;
  Tellings tellings_;
  Lines lines_;
  std::unordered_map<Hash, Entry, HashByLow> entries_;
  bool has_forgotten_ = false;
};

// What was sent and not received in time. What is received may be read before it was sent, as that is in another file.
class LateRule final : public Rule {
 public:
  LateRule(const std::string &text, uint64_t limit, Styles &styles) : Rule(text), limit_(limit), styles_(styles) {}

  void take(Look &look, const std::shared_ptr<const Kept> &kept, Hits &hits) override {
    const Message &message = look.message();
    if (message.is_cut() || (message.is_sent() && message.has_failed() && message.status != TRACE_NO_ANSWER)) return;
    const Hash hash = drix::inspect::hash(message.text(), message.id);
    std::deque<Passed> &others = (message.is_sent() ? received_ : sent_)[hash];
    if (others.empty()) {
      (message.is_sent() ? received_ : sent_).erase(hash);
      (message.is_sent() ? sent_ : received_)[hash].push_back({message.time, kept});
      order_.push_back({message.time, hash, message.is_sent()});
      while (order_.size() > kMostKnown) {
        if (!std::exchange(has_forgotten_, true))
          complain("more than a million messages under way: not all are waited for");
        forget(order_.front());
        order_.pop_front();
      }
      return;
    }
    const Passed other = std::move(others.front());
    others.pop_front();
    if (others.empty()) (message.is_sent() ? received_ : sent_).erase(hash);
    const uint64_t sent = message.is_sent() ? message.time : other.time;
    const uint64_t received = message.is_sent() ? other.time : message.time;
    if (received > sent + limit_)
      tell(message.is_sent() ? kept : other.kept.lock(), sent, "received after " + seconds_text(received - sent) + " s",
           hits);
  }

  void settle(uint64_t time, Hits &hits) override {
    while (!order_.empty() && order_.front().time + limit_ < time) {
      if (const auto left = forget(order_.front()); left && order_.front().is_sent)
        tell(left->kept.lock(), left->time, "not received", hits);
      order_.pop_front();
    }
  }

  uint64_t lasts() const override { return limit_ + 2 * kSettled; }

 private:
  struct Passed {
    uint64_t time;
    std::weak_ptr<const Kept> kept;
  };
  struct Place {
    uint64_t time;
    Hash hash;
    bool is_sent;
  };
  using ByHash = std::unordered_map<Hash, std::deque<Passed>, HashByLow>;

  // The message, if it still waits for its other end.
  std::optional<Passed> forget(const Place &place) {
    ByHash &waiting = place.is_sent ? sent_ : received_;
    const auto found = waiting.find(place.hash);
    if (found == waiting.end()) return std::nullopt;
    const auto one = std::find_if(found->second.begin(), found->second.end(),
                                  [&](const Passed &passed) { return passed.time == place.time; });
    if (one == found->second.end()) return std::nullopt;
    const Passed passed = *one;
    found->second.erase(one);
    if (found->second.empty()) waiting.erase(found);
    return passed;
  }

  void tell(const std::shared_ptr<const Kept> &kept, uint64_t time, const std::string &what, Hits &hits) {
    std::string line = "a message of " + time_text(time, false);
    if (kept != nullptr) {
      Look look(kept->message());
      line = line_of(look, styles_);
    }
    hits.push_back({time, text_, line + ' ' + what});
  }

  uint64_t limit_;
  Styles &styles_;
  ByHash sent_;
  ByHash received_;
  std::deque<Place> order_;  // of what waits, and of what waited
  bool has_forgotten_ = false;
};

std::unique_ptr<Rule> make_rule(const std::string &text, const SelectionOptions &options, Styles &styles) {
  SelectionOptions chosen;
  chosen.labels = options.labels;
  chosen.rejected = text == "rejected";
  chosen.failed = text == "failed";
  if (text.starts_with("late=")) return std::make_unique<LateRule>(text, duration_of(text, text.substr(5)), styles);
  if (text.starts_with("changes=")) {
    const std::string value = text.substr(8);
    const std::size_t slash = value.find('/');
    const std::string number = value.substr(0, slash);
    uint64_t changes = 0;
    const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), changes);
    if (error != std::errc() || end != number.data() + number.size() || changes == 0 || changes > kMostChanges)
      throw BadUsage(text + ": a number from 1 to 1000 is wanted");
    const uint64_t within = slash == std::string::npos ? kSecond : duration_of(text, value.substr(slash + 1));
    return std::make_unique<ChangeRule>(text, changes, within, options, styles);
  }
  if (!chosen.rejected && !chosen.failed) {
    if (text.find_first_of("=<>") == std::string::npos)
      throw BadUsage("no rule \"" + text +
                     "\"; there are rejected, failed, changes=N, late=DURATION and terms as for --where");
    chosen.where = {text};
  }
  return std::make_unique<MessageRule>(text, chosen, styles);
}

class Watch {
 public:
  explicit Watch(const WatchOptions &options)
      : options_(options),
        keep_(duration_of("--keep", options.keep)),
        after_(duration_of("--after", options.after)),
        styles_(read_labels(options.selection.labels), false),
        selection_(options.selection) {
    selection_.expect_fitting(styles_);
    uint64_t lasts = keep_;
    for (const std::string &text : options.rules) {
      rules_.push_back(make_rule(text, options.selection, styles_));
      lasts = std::max(lasts, keep_ + rules_.back()->lasts());
    }
    memory_.emplace(lasts);
  }

  int run() {
    std::error_code error;
    if (!std::filesystem::is_directory(options_.folder, error)) throw BadUsage(options_.folder + " is no folder");
    catch_interrupts();
    capture::Follower follower(options_.selection.paths, complain);
    while (!is_interrupted && captures_ < options_.count) {
      const Message *const message = follower.next();
      if (message != nullptr) {
        take(*message);
        settle(memory_->newest());
      } else {
        settle(now());
        std::cout.flush();
        if (!std::cout) throw BadInput("standard output cannot be written");
        std::this_thread::sleep_for(kLookAgain);
      }
    }
    if (writer_) end_capture();
    wait_for_command();
    return captures_ > 0 ? kHit : kGood;
  }

 private:
  void take(const Message &message) {
    const auto kept = memory_->add(message);
    if (writer_ && message.time <= end_) writer_->write(message);
    if (message.kind == TRACE_NOTE) return;
    Look look(message);
    if (!selection_.takes(look, styles_)) return;
    Hits hits;
    for (const auto &rule : rules_) rule->take(look, kept, hits);
    for (const Hit &hit : hits) tell(hit);
  }

  // Of messages that are older than this time, and a bit, no more come.
  void settle(uint64_t time) {
    const uint64_t settled = time > kSettled ? time - kSettled : 0;
    Hits hits;
    for (const auto &rule : rules_) rule->settle(settled, hits);
    for (const Hit &hit : hits) tell(hit);
    if (writer_ && settled > end_) end_capture();
  }

  void tell(const Hit &hit) {
    if (writer_ && hit.time > end_) end_capture();
    if (!writer_) {
      if (captures_ == options_.count) return;
      begin_capture(hit);
      std::cout << hit.rule << ": " << path_ << ": " << hit.text << '\n';
      std::cout.flush();
    } else {
      ++further_;
    }
  }

  void begin_capture(const Hit &hit) {
    std::string name = "watch-" + time_text(hit.time, true);
    for (char &c : name) c = c == ' ' ? 'T' : c == ':' ? '.' : c;
    const std::string stem = (std::filesystem::path(options_.folder) / name).lexically_normal();
    path_ = stem + TRACE_FILE_SUFFIX;
    for (int other = 2; std::filesystem::exists(path_); ++other) {
      path_ = stem + '-' + std::to_string(other) + TRACE_FILE_SUFFIX;
    }
    writer_.emplace(path_);
    memory_->for_each_since(hit.time > keep_ ? hit.time - keep_ : 0,
                            [&](const Message &message) { writer_->write(message); });
    end_ = hit.time + after_;
    rule_ = hit.rule;
    further_ = 0;
  }

  void end_capture() {
    writer_->flush();
    writer_.reset();
    ++captures_;
    if (further_ > 0) std::cout << path_ << ": " << further_ << (further_ == 1 ? " more hit\n" : " more hits\n");
    std::cout.flush();
    if (options_.command.empty()) return;
    wait_for_command();  // of the one before
    const char *const arguments[] = {"sh", "-c", options_.command.c_str(), "sh", path_.c_str(), rule_.c_str(), nullptr};
    const int error = ::posix_spawnp(&command_, "sh", nullptr, nullptr, const_cast<char **>(arguments), environ);
    if (error != 0) complain("--then: " + std::string(std::strerror(error)));
  }

  void wait_for_command() {
    int status = 0;
    if (command_ <= 0 || ::waitpid(command_, &status, 0) != command_) return;
    if (status != 0)
      complain("--then: the command ended with status " +
               std::to_string(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status)));
    command_ = 0;
  }

  const WatchOptions &options_;
  uint64_t keep_;
  uint64_t after_;
  Styles styles_;
  Selection selection_;
  std::vector<std::unique_ptr<Rule>> rules_;
  std::optional<Memory> memory_;
  std::optional<capture::Writer> writer_;  // while there is one
  std::string path_;
  std::string rule_;
  uint64_t end_ = 0;  // of what it is to hold
  uint64_t further_ = 0;
  uint64_t captures_ = 0;
  pid_t command_ = 0;
};

}  // namespace

int watch(const WatchOptions &options) { return Watch(options).run(); }

}  // namespace quopa
