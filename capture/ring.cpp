#include "capture/ring.h"

#include <unistd.h>

#include <algorithm>

#include "capture/ring_file.h"

namespace capture {
namespace {

// How far behind an empty place messages are looked for at every look. A send call has its places at once, and may
// be held up with more of them.
constexpr uint64_t kNear = 16 << 10;

}  // namespace

std::string Ring::path_of(uint64_t number) const {
  return folder_ + '/' + name_ + '.' + std::to_string(number) + TRACE_FILE_SUFFIX;
}

const Message *Ring::message() {
  while (!has_message_) {
    try {
      if (!advance()) return nullptr;
    } catch (const BadCapture &error) {
      complain_(error.what());
      blocks_.reset();
      ++number_;
    }
  }
  return &message_;
}

void Ring::take() {
  has_message_ = false;
  ++packets_;
  blocks_->pass();
}

// False when nothing is there now.
bool Ring::advance() {
  if (!blocks_) return open_from(number_, 0);
  Blocks::Found found = blocks_->look();
  if (found == Blocks::Found::filler) {  // it may no longer be one
    blocks_->go_to(blocks_->position());
    found = blocks_->look();
  }
  switch (found) {
    case Blocks::Found::packet:
      return take_packet();
    case Blocks::Found::filler:
      return pass_filler();
    case Blocks::Found::end:
      return is_full() && open_from(number_ + 1, 0);
    case Blocks::Found::unfinished:
      return skip("it ends in the middle of a block");
    case Blocks::Found::damaged:
      return skip("damaged at byte " + std::to_string(blocks_->position()) + ": " + blocks_->damage());
    case Blocks::Found::gone:
      break;
  }
  return open_from(number_ + 1, 1);
}

// Begins with the file that has the number, or the next one that is still there. Returns whether there is one.
bool Ring::open_from(uint64_t number, uint64_t lost) {
  blocks_.reset();
  number_ = number;
  std::optional<uint64_t> least;
  for_each_ring_file(folder_, [&](const RingFile &file) {
    if (file.ring == name_ && file.number >= number && (!least || file.number < *least)) least = file.number;
  });
  if (least) lost += *least - number;
  if (lost > 0) {
    complain_(name_ + ": " + std::to_string(lost) +
              " files were written anew or deleted before they were read to their end");
  }
  if (!least) return false;
  number_ = *least;
  expect(number_);
  is_behind_schema_ = false;
  packets_ = 0;
  origin_.capture = path_of(number_);
  blocks_.emplace(origin_.capture);
  return true;
}

bool Ring::skip(const std::string &why) {
  complain_(path_of(number_) + ": " + why);
  return open_from(number_ + 1, 0);
}

bool Ring::take_packet() {
  try {
    message_ = capture::take_packet(blocks_->packet(), origin_);
    message_.packet = packets_ + 1;
  } catch (const BadCapture &error) {
    return skip("packet at byte " + std::to_string(blocks_->position()) + ": " + error.what());
  }
  if (is_under_way()) {
    blocks_->go_to(blocks_->position());
    return false;
  }
  is_behind_schema_ = message_.kind == TRACE_NOTE && message_.text().starts_with(TRACE_NOTE_SCHEMA);
  has_message_ = true;
  return true;
}

// Whether it may yet be answered. All messages of a call are waited for from the same time on.
bool Ring::is_under_way() const {
  if (message_.kind == TRACE_NOTE || message_.status != TRACE_NO_ANSWER) return false;
  const std::chrono::nanoseconds now = std::chrono::system_clock::now().time_since_epoch();
  const auto age = now - std::chrono::nanoseconds(message_.time);
  return age >= age.zero() && age < patience_.message;
}

// Whether the recorder has gone on to another file.
bool Ring::is_full() { return latest_ > number_ || ::access(path_of(number_ + 1).c_str(), F_OK) == 0; }

// Goes on behind fillers, or to the next file, when what they keep room for has been waited for long enough.
bool Ring::pass_filler() {
  const uint64_t at = blocks_->position();
  if (is_behind_schema_) {  // where there is no note
    is_behind_schema_ = false;
    blocks_->pass();
    return true;
  }
  const auto now = Clock::now();
  if (wait_.at != at || wait_.number != number_) wait_ = {number_, at, now + patience_.message, std::nullopt, false};
  if (wait_.deadline && now < *wait_.deadline) return false;
  const bool full = is_full();
  const bool looks_far = wait_.deadline || now >= wait_.far_look;
  const bool has_more = find_more_before(looks_far ? UINT64_MAX : at + kNear);
  if (blocks_->position() == at && has_more) return true;
  if (wait_.deadline && has_more == wait_.has_more) {
    if (!has_more) return open_from(number_ + 1, 0);
    complain_(path_of(number_) + ": nothing was written into the place at byte " + std::to_string(at));
    return true;
  }
  blocks_->go_to(at);
  if (looks_far) wait_.far_look = now + patience_.message;
  wait_.deadline.reset();
  if (has_more || full) wait_.deadline = now + (has_more ? patience_.message : patience_.last_words);
  wait_.has_more = has_more;
  return false;
}

// Goes on to what is no filler, if that comes before the end.
bool Ring::find_more_before(uint64_t end) {
  while (blocks_->position() < end) {
    const Blocks::Found found = blocks_->look();
    if (found != Blocks::Found::filler) return found != Blocks::Found::end;
    blocks_->pass();
  }
  return false;
}

}  // namespace capture
