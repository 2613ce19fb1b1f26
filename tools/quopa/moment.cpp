#include "tools/quopa/moment.h"

#include <algorithm>
#include <charconv>
#include <ctime>
#include <optional>
#include <string_view>
#include <utility>

#include "describe/printable.h"

namespace quopa {
namespace {

constexpr uint64_t kSecond = 1000000000;
constexpr uint64_t kMinute = 60 * kSecond;
constexpr uint64_t kHour = 60 * kMinute;
constexpr std::size_t kFractionDigits = 9;
constexpr std::size_t kSecondsDigits = 10;
constexpr std::size_t kNanosecondsDigits = 19;

// Takes a number of so many digits off the front.
std::optional<uint64_t> take_number(std::string_view &text, std::size_t least, std::size_t most) {
  const std::size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
  if (digits < least || digits > most) return std::nullopt;
  uint64_t number = 0;
  std::from_chars(text.data(), text.data() + digits, number);
  text.remove_prefix(digits);
  return number;
}

bool take(std::string_view &text, char c) {
  const bool is_there = text.starts_with(c);
  if (is_there) text.remove_prefix(1);
  return is_there;
}

struct Time {
  uint64_t first;
  uint64_t lasts;  // the unit of the last digit
};

// Takes the digits behind a full stop off the front, if there are any.
std::optional<Time> take_fraction(std::string_view &text) {
  Time fraction = {0, kSecond};
  if (!take(text, '.')) return fraction;
  const std::size_t before = text.size();
  const auto number = take_number(text, 1, kFractionDigits);
  if (!number) return std::nullopt;
  for (std::size_t i = text.size(); i < before; ++i) fraction.lasts /= 10;
  fraction.first = *number * fraction.lasts;
  return fraction;
}

// The moment itself, whatever its digits.
std::optional<Time> since_start(std::string_view text) {
  if (!take(text, '+')) return std::nullopt;
  const auto number = take_number(text, 1, kSecondsDigits);
  const auto fraction = take_fraction(text);
  if (!number || !fraction) return std::nullopt;
  constexpr std::pair<std::string_view, uint64_t> kUnits[] = {
      {"", kSecond}, {"ns", 1}, {"us", 1000}, {"ms", 1000000}, {"s", kSecond}, {"m", kMinute}, {"h", kHour}};
  for (const auto &[name, unit] : kUnits) {
    uint64_t whole;
    if (text != name || __builtin_mul_overflow(*number, unit, &whole)) continue;
    const uint64_t rest = unit < kSecond ? fraction->first / (kSecond / unit) : fraction->first * (unit / kSecond);
    return Time{std::min<uint64_t>(whole, INT64_MAX) + rest, 1};
  }
  return std::nullopt;
}

std::optional<Time> since_1970(std::string_view text) {
  if (text.size() == kNanosecondsDigits) {
    const auto nanoseconds = take_number(text, kNanosecondsDigits, kNanosecondsDigits);
    return nanoseconds ? std::optional(Time{*nanoseconds, 1}) : std::nullopt;
  }
  const auto seconds = take_number(text, 1, kSecondsDigits);
  const auto fraction = take_fraction(text);
  if (!seconds || !fraction || !text.empty()) return std::nullopt;
  return Time{*seconds * kSecond + fraction->first, fraction->lasts};
}

// HH:MM, HH:MM:SS or HH:MM:SS.FRACTION.
std::optional<Time> of_day(std::string_view text) {
  const auto hours = take_number(text, 1, 2);
  const bool has_minutes = take(text, ':');
  const auto minutes = take_number(text, 2, 2);
  if (!hours || !has_minutes || !minutes || *hours > 23 || *minutes > 59) return std::nullopt;
  const Time minute = {*hours * kHour + *minutes * kMinute, kMinute};
  if (text.empty()) return minute;
  const bool has_seconds = take(text, ':');
  const auto seconds = take_number(text, 2, 2);
  const auto fraction = take_fraction(text);
  if (!has_seconds || !seconds || *seconds > 59 || !fraction || !text.empty()) return std::nullopt;
  return Time{minute.first + *seconds * kSecond + fraction->first, fraction->lasts};
}

// A time of a local day, whose hours may be 23 or 25; no value when there is no such day.
std::optional<uint64_t> on_day(std::tm day, uint64_t time) {
  const std::tm wanted = day;
  day.tm_hour = static_cast<int>(time / kHour);
  day.tm_min = static_cast<int>(time / kMinute % 60);
  day.tm_sec = static_cast<int>(time / kSecond % 60);
  day.tm_isdst = -1;
  const int64_t seconds = std::mktime(&day);
  if (seconds < 0 || day.tm_mday != wanted.tm_mday || day.tm_mon != wanted.tm_mon) return std::nullopt;
  return static_cast<uint64_t>(seconds) * kSecond + time % kSecond;
}

std::tm next(std::tm day) {
  ++day.tm_mday;
  day.tm_hour = 12;
  day.tm_isdst = -1;
  std::mktime(&day);
  return day;
}

// A date, perhaps with a time behind.
std::optional<Time> on_date(std::string_view text) {
  const auto year = take_number(text, 4, 4);
  const bool has_month = take(text, '-');
  const auto month = take_number(text, 2, 2);
  const bool has_date = take(text, '-');
  const auto date = take_number(text, 2, 2);
  if (!year || !has_month || !month || !has_date || !date) return std::nullopt;
  std::tm day = {};
  day.tm_year = static_cast<int>(*year) - 1900;
  day.tm_mon = static_cast<int>(*month) - 1;
  day.tm_mday = static_cast<int>(*date);
  const auto begin = on_day(day, 0);
  if (!begin) return std::nullopt;
  if (text.empty()) {
    const auto end = on_day(next(day), 0);
    return end ? std::optional(Time{*begin, *end - *begin}) : std::nullopt;
  }
  if (!take(text, 'T') && !take(text, ' ')) return std::nullopt;
  const auto time = of_day(text);
  const auto first = time ? on_day(day, time->first) : std::nullopt;
  return first ? std::optional(Time{*first, time->lasts}) : std::nullopt;
}

}  // namespace

Moment::Moment(const std::string &text) {
  std::optional<Time> time = since_start(text);
  if (time) form_ = Form::since_start;
  if (!time && (time = of_day(text))) form_ = Form::of_day;
  if (!time) time = since_1970(text);
  if (!time) time = on_date(text);
  if (!time) throw MomentError(drix::describe::quoted(text) + " is no time; like 08:56:40.5, 2025-11-25T08:56 or +5s");
  first_ = time->first;
  lasts_ = time->lasts;
}

Moment::Span Moment::in(uint64_t start) const {
  uint64_t first = first_;
  if (form_ == Form::since_start) first = start + first_;
  if (form_ == Form::of_day) {
    const auto seconds = static_cast<std::time_t>(start / kSecond);
    std::tm day = {};
    localtime_r(&seconds, &day);
    first = on_day(day, first_).value_or(0);
    if (first + 12 * kHour < start) first = on_day(next(day), first_).value_or(first);
  }
  return {first, first + lasts_ - 1};
}

}  // namespace quopa
