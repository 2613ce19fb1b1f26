// The log lines of rejected input and failed allocations. They are cold: out of line, and shared by all message types.
#pragma once

#include <cstdint>

#include "runtime/services.h"

namespace drix {

[[gnu::cold]] void reject_build_parameters(Services &unit, const char *function, const void *buffer, uint32_t capacity,
                                           const void *record);
[[gnu::cold]] void reject_unpack_parameters(Services &unit, const char *function, const void *buffer, uint32_t length,
                                            const void *record);
[[gnu::cold]] void reject_table_offset(Services &unit, const char *function, uint32_t offset, uint32_t length);
[[gnu::cold]] void reject_vtable_offset(Services &unit, const char *function, uint32_t offset, uint32_t limit);
[[gnu::cold]] void reject_vtable_length(Services &unit, const char *function, uint32_t vtable_length, uint32_t limit);
[[gnu::cold]] void report_failed_allocation(Services &unit, const char *function, uint32_t size);

}  // namespace drix
