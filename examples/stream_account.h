// What arrived of a stream whose messages are numbered 1, 2, 3, ...
#pragma once

#include <cstdint>

class StreamAccount {
 public:
  // Takes the next message to arrive; differs when it is not what was sent under its number.
  void take(uint64_t number, bool differs) {
    if (differs) {
      ++differing_;
    } else if (number <= last_) {
      ++repeated_;
    }
    if (number > last_) {
      missing_ += number - last_ - 1;
      last_ = number;
    }
  }

  void end() { ended_ = true; }

  uint64_t last() const { return last_; }  // the highest number so far
  uint64_t missing() const { return missing_; }
  uint64_t repeated() const { return repeated_; }
  uint64_t differing() const { return differing_; }
  bool ended() const { return ended_; }
  bool clean(bool may_repeat) const { return missing_ == 0 && differing_ == 0 && (may_repeat || repeated_ == 0); }

 private:
  uint64_t last_ = 0;
  uint64_t missing_ = 0;
  uint64_t repeated_ = 0;
  uint64_t differing_ = 0;
  bool ended_ = false;
};
