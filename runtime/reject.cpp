#include "runtime/reject.h"

namespace drix {
namespace {

const char *state(const void *pointer) { return pointer == nullptr ? "null" : "nonNull"; }

}  // namespace

void reject_build_parameters(Services &unit, const char *function, const void *buffer, uint32_t capacity,
                             const void *record) {
  svc_log(unit, LogCode::invalid_input, __LINE__, function, "[QUOPA]:Param invalid(%s, %u, %s)", state(buffer),
          capacity, state(record));
}

void reject_unpack_parameters(Services &unit, const char *function, const void *buffer, uint32_t length,
                              const void *record) {
  svc_log(unit, LogCode::invalid_input, __LINE__, function, "[QUOPA]:Param invalid(%s, %d, %s)", state(buffer),
          static_cast<int32_t>(length), state(record));
}

void reject_table_offset(Services &unit, const char *function, uint32_t offset, uint32_t length) {
  svc_log(unit, LogCode::invalid_input, __LINE__, function, "[QUOPA]:Table offset(%u) is out of range(4 - %u)", offset,
          length);
}

void reject_vtable_offset(Services &unit, const char *function, uint32_t offset, uint32_t limit) {
  svc_log(unit, LogCode::invalid_input, __LINE__, function, "[QUOPA]:Vtable offset(%u) is out of range(4 - %u)", offset,
          limit);
}

void reject_vtable_length(Services &unit, const char *function, uint32_t vtable_length, uint32_t limit) {
  svc_log(unit, LogCode::invalid_input, __LINE__, function, "[QUOPA]:Vtable Len(%u) is out of range(0 - %u)",
          vtable_length, limit);
}

void report_failed_allocation(Services &unit, const char *function, uint32_t size) {
  svc_log(unit, LogCode::out_of_memory, __LINE__, function, "[QUOPA]:Malloc unpack data failed, size(%u)", size);
}

}  // namespace drix
