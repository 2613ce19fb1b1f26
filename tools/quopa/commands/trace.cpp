// quopa trace: the messages of captures, chosen and shown, or written to another capture.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>

#include "capture/follower.h"
#include "capture/ring_file.h"
#include "capture/timeline.h"
#include "capture/writer.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/input.h"
#include "tools/quopa/selection.h"
#include "tools/quopa/show.h"
#include "tools/quopa/tap.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

namespace fs = std::filesystem;

constexpr std::chrono::milliseconds kPause{20};  // between looks for what a process has sent

class Output {
 public:
  explicit Output(const TraceOptions &options)
      : options_(options), styles_(read_labels(options.selection.labels), options.ipv6), selection_(options.selection) {
    line_.has_color = wants_color(options.color);
    const std::vector<std::string> &paths = options.selection.paths;
    line_.has_capture = has_several_captures(paths) || (options.selection.tap.follow && !is_endpoint(paths[0]));
  }

  // Creates what is written. To be called when it is settled what is read.
  void open() {
    if (!options_.output.empty()) writer_.emplace(options_.output);
  }

  void take(const Message &message) {
    if (message.kind == TRACE_NOTE) return take_note(message);
    Look look(message);
    if (!selection_.takes(look, styles_)) return;
    ++taken_;
    if (writer_) return writer_->write(message);
    Progress::clear();
    const drix::inspect::JsonStyle &style = styles_.of(*message.origin);
    if (options_.bare) {
      if (look.type() == nullptr) return;
      const uint8_t *const record = look.record();
      write_json(std::cout, *look.type(), record, style, look.verdict().accepted() ? nullptr : &look.verdict());
    } else {
      options_.json ? show_json(std::cout, look, style, options_.bytes)
                    : show_text(std::cout, look, style, line_at(message.time));
    }
    std::cout << '\n';
  }

  // Whether there is all that was asked for.
  bool is_full() const { return taken_ == options_.count; }

  void flush() {
    std::cout.flush();
    if (writer_) writer_->flush();
  }

  void expect_fitting() { selection_.expect_fitting(styles_); }

 private:
  void take_note(const Message &note) {
    if (note_text(note).empty() || options_.bare) return;
    writer_ ? writer_->write(note) : show_note(std::cout, note, options_.json, line_at(note.time));
  }

  static bool has_several_captures(const std::vector<std::string> &paths) {
    return paths.size() > 1 || capture::captures_in(paths[0]).size() > 1;
  }

  // The first line of each day has the date.
  const LineStyle &line_at(uint64_t time) {
    constexpr uint64_t kMinute = 60000000000;
    if (time / kMinute != minute_) {
      minute_ = time / kMinute;
      const std::string day = time_text(time, true).substr(0, std::size("2025-11-25") - 1);
      line_.has_date = day != day_;
      day_ = day;
    } else {
      line_.has_date = false;
    }
    line_.has_date = line_.has_date || options_.date;
    if (options_.delta) line_.before = before_.value_or(time);
    before_ = time;
    return line_;
  }

  const TraceOptions &options_;
  Styles styles_;
  Selection selection_;
  std::optional<capture::Writer> writer_;
  uint64_t taken_ = 0;
  LineStyle line_;
  std::optional<uint64_t> before_;  // the time of the line before
  uint64_t minute_ = UINT64_MAX;    // of that time, and its day
  std::string day_;
};

// Whether both are one regular file; "-" is a standard stream.
bool is_same_file(const std::string &input, const std::string &output) {
  const auto look = [](const std::string &path, int stream, struct stat &file) {
    return (path == "-" ? ::fstat(stream, &file) : ::stat(path.c_str(), &file)) == 0 && S_ISREG(file.st_mode);
  };
  struct stat in, out;
  return look(input, STDIN_FILENO, in) && look(output, STDOUT_FILENO, out) && in.st_dev == out.st_dev &&
         in.st_ino == out.st_ino;
}

// Whether a file, which need not be there yet, would be followed.
bool is_followed(const fs::path &path, const fs::path &output) {
  std::error_code error;
  const fs::path file = fs::weakly_canonical(output, error);
  const fs::path folder = fs::is_directory(path, error) ? path : fs::absolute(path, error).parent_path();
  return capture::ring_file(file.filename()) && fs::equivalent(folder, file.parent_path(), error);
}

// A capture that is read must not be overwritten, nor what is written be read.
void expect_other_output(const TraceOptions &options) {
  const std::string &output = options.output;
  if (output.empty()) return;
  bool is_read = false;
  for (const std::string &path : options.selection.paths) {
    if (options.selection.tap.follow) {
      is_read = is_read || is_followed(path, output);
      continue;
    }
    for (const std::string &file : capture::captures_in(path)) is_read = is_read || is_same_file(file, output);
  }
  if (is_read) throw BadUsage((output == "-" ? "standard output" : output) + " is read, so it cannot be written");
}

int follow(const TraceOptions &options, Output &output) {
  output.expect_fitting();  // nobody would see an end at which to tell
  capture::Follower follower(options.selection.paths, complain);
  output.open();
  while (true) {
    while (!output.is_full()) {
      const Message *message = follower.next();
      if (message == nullptr) break;
      output.take(*message);
    }
    output.flush();
    if (output.is_full()) return kGood;
    if (!std::cout) throw BadInput("standard output cannot be written");
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

int trace(const TraceOptions &options) {
  expect_other_output(options);
  Output output(options);
  const bool taps = has_endpoint(options.selection.paths, options.selection.tap);
  if (options.selection.tap.follow && !taps) return follow(options, output);
  if (taps) output.expect_fitting();  // there may be no end
  const auto idle = [&] {
    output.flush();
    if (!std::cout) throw BadInput("standard output cannot be written");
  };
  capture::Timeline timeline(options.selection.paths, complain, opener(options.selection, idle));
  output.open();
  Progress progress;
  while (!output.is_full()) {
    const Message *message = timeline.next();
    if (message == nullptr) break;
    progress.step();
    output.take(*message);
  }
  output.flush();
  if (!output.is_full()) output.expect_fitting();  // what comes later may fit
  return timeline.is_whole() ? kGood : kBad;
}

}  // namespace quopa
