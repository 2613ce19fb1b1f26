// Text put together by hand: the functions of the standard library take more stack than some threads have.
#pragma once

#include <cstdint>
#include <cstring>

namespace trace {

// They write at a place and return the end of what they have written, where a zero stands.
inline char *append(char *at, const char *text) { return stpcpy(at, text); }

inline char *append(char *at, uint64_t number) {
  char digits[20];
  int count = 0;
  do digits[count++] = static_cast<char>('0' + number % 10);
  while ((number /= 10) != 0);
  while (count != 0) *at++ = digits[--count];
  *at = '\0';
  return at;
}

}  // namespace trace
