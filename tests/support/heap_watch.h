// Counts the calls of malloc and free between start and stop, and can make one malloc fail.
#pragma once

#include <cstddef>
#include <cstdint>

namespace heap_watch {

#ifdef DRIX_SANITIZED
inline constexpr bool kWorks = false;
#else
inline constexpr bool kWorks = true;
#endif

struct Counts {
  std::size_t allocations = 0;
  std::size_t frees = 0;
  bool operator==(const Counts &) const = default;
};

inline constexpr std::size_t kNever = SIZE_MAX;
void start(std::size_t failing = kNever);
Counts stop();

}  // namespace heap_watch
