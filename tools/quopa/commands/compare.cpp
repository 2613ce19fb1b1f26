// quopa compare: what became of the messages of a sender at a receiver.
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <iterator>
#include <unordered_map>

#include "capture/ring_file.h"
#include "capture/timeline.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/input.h"
#include "tools/quopa/show.h"
#include "tools/quopa/tap.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

// Messages with the same bytes, of which there may be several: the first that was sent is the first that arrived.
struct Same {
  std::vector<uint64_t> arrivals;  // times
  std::size_t sent = 0;
  std::size_t matched = 0;  // arrivals that were sent
  std::size_t told = 0;     // arrivals that were looked at again
};

// Captures are read twice, so what is at endpoints is written to files first.
class Recordings {
 public:
  explicit Recordings(CompareOptions &options) {
    const std::vector<std::string> paths = {options.sender, options.receiver};
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

class Comparison {
 public:
  explicit Comparison(const CompareOptions &options)
      : options_(options), open_(opener(selection_of(options))), styles_(read_labels(options.labels), options.ipv6) {
    line_.has_color = wants_color(options.color);
  }

  int run() {
    expect_files(options_.sender);
    expect_files(options_.receiver);
    tell_overwritten(options_.sender);
    if (options_.receiver != options_.sender) tell_overwritten(options_.receiver);
    for_each(options_.receiver, TRACE_RECEIVED, true, [&](const Message &message) {
      ++received_;
      same_[key_of(message)].arrivals.push_back(message.time);
    });
    for_each(options_.sender, TRACE_SENT, true, [&](const Message &message) { match(message); });
    for_each(options_.receiver, TRACE_RECEIVED, false, [&](const Message &message) {
      Same &same = same_[key_of(message)];
      if (same.told++ < same.matched) return;
      ++(same.sent > 0 ? again_ : unsent_);
      tell(same.sent > 0 ? "received again" : "received but not sent", message);
    });
    if (cut_ > 0) complain(std::to_string(cut_) + " messages were cut by the recorder and are not compared");
    summarize();
    return whole_ && missing_ + again_ + unsent_ == 0 ? kGood : kBad;
  }

 private:
  // By ID and bytes.
  static std::string key_of(const Message &message) {
    std::string key(reinterpret_cast<const char *>(&message.id), sizeof message.id);
    return key.append(message.text());
  }

  // Captures are read twice, so none may be a pipe.
  static void expect_files(const std::string &path) {
    for (const std::string &file : capture::captures_in(path)) {
      std::error_code error;
      const auto status = std::filesystem::status(file, error);
      if (file == "-" || (std::filesystem::exists(status) && !std::filesystem::is_regular_file(status)))
        throw BadUsage(name_of(file) + ": is compared, so it must be a file or a folder of files");
    }
  }

  // What stood in files that were written anew is missing for no fault of the bus.
  static void tell_overwritten(const std::string &path) {
    for (const std::string &file : capture::captures_in(path)) {
      const std::filesystem::path file_path = file;
      const auto in_ring = capture::ring_file(file_path.filename());
      if (!in_ring || in_ring->number == 0) continue;
      const std::string former = in_ring->ring + '.' + std::to_string(in_ring->number - 1) + TRACE_FILE_SUFFIX;
      if (std::filesystem::exists(file_path.parent_path() / former)) continue;
      complain(file + ": the ring's files before this one were written anew, so messages of that time are missing");
    }
  }

  template <class Take>
  void for_each(const std::string &path, TraceKind kind, bool first_time, Take take) {
    // Of what is sender and receiver at once, everything has been told the first time.
    const bool tells = first_time && (kind == TRACE_RECEIVED || options_.sender != options_.receiver);
    capture::Timeline timeline(
        {path}, tells ? complain : [](const std::string &) {}, open_);
    Progress progress;
    while (const Message *message = timeline.next()) {
      progress.step();
      if (message->kind == TRACE_NOTE && tells) show_note(std::cerr, *message, false);
      if (message->kind != kind) continue;
      if (!message->is_cut()) {
        take(*message);
      } else if (first_time) {
        ++cut_;
      }
    }
    whole_ = whole_ && timeline.is_whole();
  }

  void match(const Message &message) {
    if (message.has_failed() && message.status != TRACE_NO_ANSWER) {
      ++failed_;
      return;
    }
    ++sent_;
    const auto found = same_.find(key_of(message));
    if (found != same_.end()) ++found->second.sent;
    if (found == same_.end() || found->second.matched == found->second.arrivals.size()) {
      ++missing_;
      return tell("not received", message);
    }
    const uint64_t arrival = found->second.arrivals[found->second.matched++];
    latencies_.push_back(static_cast<int64_t>(arrival - message.time));
  }

  void tell(const char *what, const Message &message) {
    Progress::clear();
    Look look(message);
    const drix::inspect::JsonStyle &style = styles_.of(*message.origin);
    if (options_.json) {
      std::cout << "{\"difference\":\"" << what << "\",\"message\":";
      show_json(std::cout, look, style);
      std::cout << "}\n";
    } else {
      std::cout << what << ": ";
      show_text(std::cout, look, style, line_);
      std::cout << '\n';
    }
  }

  int64_t percentile(double part) const {
    return latencies_[static_cast<std::size_t>(part * static_cast<double>(latencies_.size() - 1))];
  }

  void summarize() {
    std::sort(latencies_.begin(), latencies_.end());
    constexpr std::pair<const char *, double> kParts[] = {{"least", 0},   {"half", 0.5},     {"90 %", 0.9},
                                                          {"99 %", 0.99}, {"99.9 %", 0.999}, {"most", 1}};
    if (options_.json) {
      std::cout << "{\"sent\":" << sent_ << ",\"failed\":" << failed_ << ",\"received\":" << received_
                << ",\"not_received\":" << missing_ << ",\"received_again\":" << again_ << ",\"not_sent\":" << unsent_
                << ",\"latency_ns\":[";
      for (const auto &[name, part] : kParts) {
        if (!latencies_.empty()) std::cout << (part > 0 ? "," : "") << percentile(part);
      }
      std::cout << "]}\n";
      return;
    }
    std::cout << sent_ << " sent, " << received_ << " received: " << missing_ << " not received, " << again_
              << " received again, " << unsent_ << " received but not sent\n";
    if (failed_ > 0) std::cout << failed_ << " more could not be sent\n";
    if (latencies_.empty()) return;
    std::cout << "latency in us:";
    for (const auto &[name, part] : kParts) {
      std::cout << (part > 0 ? ", " : " ") << name << ' ' << percentile(part) / 1000;
    }
    std::cout << '\n';
  }

  const CompareOptions &options_;
  const capture::Timeline::Open open_;
  Styles styles_;
  LineStyle line_;
  std::unordered_map<std::string, Same> same_;
  std::vector<int64_t> latencies_;  // negative where the clocks of two hosts differ
  uint64_t sent_ = 0;
  uint64_t failed_ = 0;
  uint64_t received_ = 0;
  uint64_t missing_ = 0;
  uint64_t again_ = 0;
  uint64_t unsent_ = 0;
  uint64_t cut_ = 0;
  bool whole_ = true;
};

}  // namespace

int compare(const CompareOptions &options) {
  CompareOptions both = options;
  if (both.receiver.empty()) both.receiver = both.sender;
  const Recordings recordings(both);
  const int status = Comparison(both).run();
  return recordings.is_whole() ? status : kBad;
}

}  // namespace quopa
