// The platform services as the tests want them: every log call is kept, every block counted, any allocation can fail.
// Linked into a test program, they are found by name like the real ones.
#pragma once

#include <cstdint>
#include <vector>

#include "codec.h"

namespace fake_platform {

using reference::LogCall;
using reference::MemoryCall;

// What happened since the last reset.
std::vector<LogCall> logs();
std::vector<MemoryCall> allocations();
std::vector<MemoryCall> frees();

// Blocks that were allocated and not yet freed, since the process started.
std::size_t live_blocks();

// Forgets the calls; the allocation with this number from now on, counted from 0, will fail.
inline constexpr std::size_t kNever = SIZE_MAX;
void reset(std::size_t failing_allocation = kNever);

}  // namespace fake_platform
