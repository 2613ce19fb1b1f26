// quopa trace: the messages of captures, chosen and shown, or written to another capture.
#include <chrono>
#include <filesystem>
#include <iostream>
#include <optional>
#include <thread>

#include "capture/follower.h"
#include "capture/timeline.h"
#include "capture/writer.h"
#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/input.h"
#include "tools/quopa/selection.h"
#include "tools/quopa/show.h"

namespace quopa {
namespace {

constexpr std::chrono::milliseconds kPause{20};  // between looks for what a process has sent

class Output {
 public:
  explicit Output(const TraceOptions &options)
      : options_(options), styles_(read_labels(options.selection.labels), options.ipv6), selection_(options.selection) {
    if (!options.output.empty()) writer_.emplace(options.output);
  }

  void take(const Message &message) {
    if (message.kind == TRACE_NOTE) return take_note(message);
    Look look(message);
    if (!selection_.takes(look, styles_)) return;
    if (writer_) return writer_->write(message);
    const drix::inspect::JsonStyle &style = styles_.of(*message.origin);
    if (options_.bare) {
      if (look.type() == nullptr) return;
      const uint8_t *const record = look.record();
      write_json(std::cout, *look.type(), record, style, look.verdict().accepted() ? nullptr : &look.verdict());
    } else {
      options_.json ? show_json(std::cout, look, style) : show_text(std::cout, look, style);
    }
    std::cout << '\n';
  }

  void flush() {
    std::cout.flush();
    if (writer_) writer_->flush();
  }

  void expect_fitting() { selection_.expect_fitting(styles_); }

 private:
  void take_note(const Message &note) {
    if (note_text(note).empty() || options_.bare) return;
    writer_ ? writer_->write(note) : show_note(std::cout, note, options_.json);
  }

  const TraceOptions &options_;
  Styles styles_;
  Selection selection_;
  std::optional<capture::Writer> writer_;
};

// A capture that is read must not be overwritten.
void expect_other_output(const TraceOptions &options) {
  if (options.output.empty() || options.output == "-") return;
  for (const std::string &path : options.selection.paths) {
    for (const std::string &file : capture::captures_in(path)) {
      std::error_code error;
      if (std::filesystem::equivalent(file, options.output, error))
        throw BadUsage(options.output + " is read, so it cannot be written");
    }
  }
}

[[noreturn]] void follow(const TraceOptions &options, Output &output) {
  output.expect_fitting();  // nobody would see an end at which to tell
  capture::Follower follower(options.selection.paths, complain);
  while (true) {
    while (const Message *message = follower.next()) output.take(*message);
    output.flush();
    if (!std::cout) throw BadInput("standard output cannot be written");
    std::this_thread::sleep_for(kPause);
  }
}

}  // namespace

int trace(const TraceOptions &options) {
  if (!options.follow) expect_other_output(options);
  Output output(options);
  if (options.follow) follow(options, output);
  capture::Timeline timeline(options.selection.paths, complain);
  while (const Message *message = timeline.next()) output.take(*message);
  output.flush();
  output.expect_fitting();
  return timeline.is_whole() ? kGood : kBad;
}

}  // namespace quopa
