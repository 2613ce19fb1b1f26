// The frames on their way to one endpoint, numbered 1, 2, 3, ..., and the messages that are not acknowledged.
#ifndef KELVODRIX_WINDOW_H
#define KELVODRIX_WINDOW_H

#include <cstddef>
#include <cstdint>
#include <deque>

#include "kelvodrix.h"

namespace kelvodrix {

class Window {
 public:
  explicit Window(const kelvodrix_options &options) : options_(options) {}

  bool fits(size_t frame_bytes) const {
    return in_flight_.size() < options_.window_frames && frame_bytes <= options_.window_bytes - bytes_;
  }
  bool empty() const { return in_flight_.empty(); }
  size_t frames() const { return in_flight_.size(); }
  size_t bytes() const { return bytes_; }
  uint64_t undelivered() const { return undelivered_; }  // messages

  uint64_t last() const { return last_; }
  uint64_t first() const { return empty() ? last_ + 1 : in_flight_.front().number; }
  size_t first_bytes() const { return in_flight_.front().bytes; }

  void add(uint32_t messages, size_t frame_bytes) {
    in_flight_.push_back({last_ + 1, frame_bytes, messages});
    ++last_;
    bytes_ += frame_bytes;
    undelivered_ += messages;
  }
  // The last frame has got more messages.
  void extend_last(uint32_t messages, size_t bytes) {
    in_flight_.back().messages += messages;
    in_flight_.back().bytes += bytes;
    bytes_ += bytes;
    undelivered_ += messages;
  }
  void settle_first(bool acknowledged) {
    if (acknowledged) undelivered_ -= in_flight_.front().messages;
    bytes_ -= in_flight_.front().bytes;
    in_flight_.pop_front();
  }
  // These are acknowledged, and what is under way before them is lost.
  void settle(uint64_t from, uint64_t to) {
    while (first() <= to && !empty()) settle_first(first() >= from);
  }
  void lose_all() {
    in_flight_.clear();
    bytes_ = 0;
  }
  void restart() {
    lose_all();
    last_ = 0;
  }
  // The last frame was not sent after all.
  void withdraw(size_t messages) { undelivered_ -= messages; }
  void withdraw_last() {
    withdraw(in_flight_.back().messages);
    bytes_ -= in_flight_.back().bytes;
    in_flight_.pop_back();
  }

 private:
  struct Sent {
    uint64_t number;
    size_t bytes;
    uint32_t messages;
  };

  const kelvodrix_options options_;
  uint64_t last_ = 0;
  std::deque<Sent> in_flight_;
  size_t bytes_ = 0;
  uint64_t undelivered_ = 0;
};

}  // namespace kelvodrix

#endif
