#include "describe/printable.h"

#include <gtest/gtest.h>

namespace {

TEST(Printable, LeavesNothingThatATerminalObeysOrHides) {
  using std::string_literals::operator""s;
  const struct {
    std::string text, shown;
  } cases[] = {
      {"plain \\ text ~", "plain \\ text ~"},
      {"\0\t\n\r\x1b[31m\x1f\x7f"s, "\\x00\\x09\\x0a\\x0d\\x1b[31m\\x1f\\x7f"},
      {"r\u00e9seau \u2713 \U0001F600", "r\u00e9seau \u2713 \U0001F600"},
      {"\u00a0\uffff\U0010FFFF", "\u00a0\uffff\U0010FFFF"},
      {"\u0080\u009b1m\u009f", "\\xc2\\x80\\xc2\\x9b1m\\xc2\\x9f"},
      {"\u202e\u202a\u2066\u2069", "\\xe2\\x80\\xae\\xe2\\x80\\xaa\\xe2\\x81\\xa6\\xe2\\x81\\xa9"},
      {"\u200b\u200f\u2010\u061c", "\\xe2\\x80\\x8b\\xe2\\x80\\x8f\u2010\\xd8\\x9c"},
      {"\u2027\u2028\u2029\ufeff", "\u2027\\xe2\\x80\\xa8\\xe2\\x80\\xa9\\xef\\xbb\\xbf"},
      {"\U000E0041", "\\xf3\\xa0\\x81\\x81"},
      // What is no UTF-8: a lone or missing byte, a form longer than need be, a surrogate, beyond the last character.
      {"\x9b", "\\x9b"},
      {"\xc3", "\\xc3"},
      {"\xc3(", "\\xc3("},
      {"\xe2\x9c", "\\xe2\\x9c"},
      {"\xe2\x9c(", "\\xe2\\x9c("},
      {"\xc0\x9b\xc1\xbf", "\\xc0\\x9b\\xc1\\xbf"},
      {"\xe0\x81\x81", "\\xe0\\x81\\x81"},
      {"\xf0\x80\x81\x81", "\\xf0\\x80\\x81\\x81"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"\xff\xf8\xfc", "\\xff\\xf8\\xfc"},
      {std::string(5000, 'a'), std::string(5000, 'a')},
      {std::string(100000, 'a'), std::string(5000, 'a') + "..."},
  };
  for (const auto &[text, shown] : cases) EXPECT_EQ(drix::describe::printable(text), shown);
}

}  // namespace
