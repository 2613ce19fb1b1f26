// Points in time as a user writes them:
//
//   2025-11-25 08:56:40.5   local time, also with a T in between, without seconds, or the day alone
//   08:56:40                the first such time that is not more than 12 hours before the capture's start
//   +5s                     behind the capture's start; also ns, us, ms, m and h
//   1764061000.5            seconds since 1970; 1764061000500000000 are nanoseconds
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace quopa {

// Of text that is no time.
struct MomentError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Moment {
 public:
  // Nanoseconds since 1970, both included: all that is shown with the digits that were given. 08:56:40 is a whole
  // second.
  struct Span {
    uint64_t first, last;
  };

  explicit Moment(const std::string &text);  // throws MomentError

  // In a capture that starts at a time.
  Span in(uint64_t start) const;

  // Whether it is the same in all captures.
  bool is_absolute() const { return form_ == Form::absolute; }

 private:
  enum class Form : uint8_t { absolute, of_day, since_start };

  Form form_ = Form::absolute;
  uint64_t first_ = 0;
  uint64_t lasts_ = 1;
};

}  // namespace quopa
