#include "tools/quopa/tellings.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "capture/ring_file.h"
#include "capture/timeline.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/show.h"
#include "tools/quopa/tap.h"
#include "tools/quopa/terminal.h"

namespace quopa {
namespace {

// Terms on packets choose messages, those on members entries.
SelectionOptions of_messages(SelectionOptions options) {
  std::erase_if(options.where, [](const std::string &term) { return !PacketTerm::is_one(term); });
  return options;
}

drix::inspect::Tables tables_of(const drix::inspect::Labels &labels) {
  try {
    return drix::inspect::Tables(labels);
  } catch (const drix::inspect::TableError &error) {
    throw BadInput(std::string("the labels: ") + error.what());
  }
}

}  // namespace

Tellings::Tellings(const SelectionOptions &options, Styles &styles)
    : styles_(styles),
      open_(opener(options)),
      selection_(of_messages(options)),
      tables_(tables_of(styles.own().labels)) {}

void Tellings::read(const std::vector<std::string> &paths, const std::optional<Moment> &until, const Take &take,
                    bool is_again) {
  for (const std::string &path : paths) {
    if (!is_again) tell_overwritten(path);
  }
  capture::Timeline timeline(paths, is_again ? [](const std::string &) {} : complain, open_);
  uint64_t end = UINT64_MAX;
  bool has_start = !until;
  Progress progress;
  while (const Message *message = timeline.next()) {
    progress.step();
    first_ = std::min(first_, message->time);
    if (message->kind == TRACE_NOTE) {
      if (!is_again) Progress::clear();
      if (!is_again) show_note(std::cerr, *message, false);
      continue;
    }
    if (!has_start) end = until->in(message->time).last;
    has_start = true;
    if (message->time <= end) take_message(*message, take, is_again);
  }
  is_whole_ = is_whole_ && timeline.is_whole();
  selection_.expect_fitting(styles_);
}

void Tellings::take_message(const Message &message, const Take &take, bool is_again) {
  const drix::describe::Type *const type = message.type();
  const drix::inspect::Telling *const telling = type == nullptr ? nullptr : tables_.find(*type);
  if (telling == nullptr) return;
  Look look(message);
  if (!selection_.takes(look, styles_)) return;
  if (message.has_failed() && message.status != TRACE_NO_ANSWER) {
    failed_ += !is_again;
    return;
  }
  if (message.is_cut()) {
    cut_ += !is_again;
    return;
  }
  const uint8_t *const record = look.record();
  if (!look.verdict().accepted()) {
    rejected_ += !is_again;
    return;
  }
  Mark mark = {message.time, message.packet, nullptr};
  for_each_told(*telling, record, [&](const uint8_t *carried) {
    if (mark.source == nullptr) mark.source = &source_of(message);
    make_key(*telling, carried, key_);
    if (!telling->deletes) make_image(*telling, record, carried, image_);
    take({*telling, key_, image_, mark});
  });
}

// Most messages come from where the one before came from.
const Source &Tellings::source_of(const Message &message) {
  const capture::Origin &origin = *message.origin;
  const drix::inspect::JsonStyle *const style = &styles_.of(origin);
  const auto tells = [&](const Teller &teller) {
    return teller.kind == message.kind && teller.process == origin.process && teller.program == origin.program;
  };
  const auto is_it = [&](const Source &source) {
    return source.style == style && tells(*source.teller) && source.capture == origin.capture;
  };
  if (last_source_ != nullptr && is_it(*last_source_)) return *last_source_;
  const auto known = std::find_if(sources_.begin(), sources_.end(), is_it);
  if (known != sources_.end()) return *(last_source_ = &*known);
  auto teller = std::find_if(tellers_.begin(), tellers_.end(), tells);
  if (teller == tellers_.end()) {
    tellers_.push_back({origin.program, origin.process, message.kind, tellers_.size()});
    teller = tellers_.end() - 1;
  }
  sources_.push_back({origin.capture, &*teller, style});
  return *(last_source_ = &sources_.back());
}

void Tellings::complain_of_gaps() const {
  const auto tell = [](uint64_t messages, const char *what) {
    if (messages > 0) complain(std::to_string(messages) + " messages are left out: " + what);
  };
  tell(failed_, "the bus or the decoder did not take them");
  tell(rejected_, "their decoder rejects them");
  tell(cut_, "the recorder cut them");
}

std::string who(const Teller &teller) {
  return (teller.program.empty() ? "process" : teller.program) + ' ' + std::to_string(teller.process);
}

std::optional<Moment> moment_of(const std::string &option, const std::string &text) {
  try {
    return text.empty() ? std::nullopt : std::optional<Moment>(text);
  } catch (const MomentError &error) {
    throw BadUsage(option + ' ' + error.what());
  }
}

void tell_overwritten(const std::string &path) {
  for (const std::string &file : capture::captures_in(path)) {
    const std::filesystem::path file_path = file;
    const auto in_ring = capture::ring_file(file_path.filename());
    if (!in_ring || in_ring->number == 0) continue;
    const std::string former = in_ring->ring + '.' + std::to_string(in_ring->number - 1) + TRACE_FILE_SUFFIX;
    if (std::filesystem::exists(file_path.parent_path() / former)) continue;
    complain(file + ": the ring's files before this one were written anew, so messages of that time are missing");
  }
}

}  // namespace quopa
