#include "runtime/encode.h"

#include "runtime/reject.h"

namespace drix {
namespace {

constexpr int32_t kFailure = -1;

[[gnu::always_inline]] inline uint32_t build_root(const Encoder &encoder, uint8_t *buffer, const void *record) {
  store(buffer, kWord + encoder.vtable_length);
  return static_cast<uint32_t>(encoder.build_table(buffer + kWord, record) - buffer);
}

[[gnu::always_inline]] inline uint32_t build_inline(const Encoder &encoder, uint8_t *buffer, uint32_t capacity,
                                                    const void *record) {
  Services &services = encoder.message->services->encoding;
  if (buffer == nullptr || record == nullptr || capacity < kWord) [[unlikely]] {
    reject_build_parameters(services, encoder.message->pack_name(), buffer, capacity, record);
    return 0;
  }
  svc_bind_mem(services);
  return build_root(encoder, buffer, record);
}

// Whether a record fits into so many bytes, whatever its scalars are.
bool fits_at_its_longest(const Encoder &encoder, const void *record, uint32_t capacity) {
  return capacity >= (encoder.longest_size == nullptr ? encoder.longest_compact : encoder.longest_size(record));
}

// Measures by encoding, which is as good as a size function of its own for records that are short and seldom measured.
uint32_t measure(const Encoder &encoder, const void *record) {
  if (encoder.nested_size != nullptr) return compact_size(encoder, record);
  uint8_t scratch[kMaxFixedLength];
  return build_root(encoder, scratch, record);
}

}  // namespace

uint32_t compact_size(const Encoder &encoder, const void *record) {
  const uint64_t size = kWord + encoder.nested_size(record);
  return size > UINT32_MAX ? 0 : static_cast<uint32_t>(size);
}

uint32_t build_unbound(const Encoder &encoder, uint8_t *buffer, const void *record) {
  return build_root(encoder, buffer, record);
}

uint32_t build(const Encoder &encoder, uint8_t *buffer, uint32_t capacity, const void *record) {
  return build_inline(encoder, buffer, capacity, record);
}

void build_fixed(const Encoder &encoder, uint8_t *buffer, const void *record) {
  svc_bind_mem(encoder.message->services->encoding);
  encoder.build_fixed(buffer, record);
}

int32_t pack(const Encoder &encoder, const void *record, uint8_t *buffer, uint32_t *length) {
  if (record == nullptr || length == nullptr) return kFailure;
  const uint32_t capacity = *length;
  if (!fits_at_its_longest(encoder, record, capacity)) {
    const uint32_t size = measure(encoder, record);
    if (size == 0 || capacity < size) return kFailure;
  }
  const uint32_t written = build_inline(encoder, buffer, capacity, record);
  if (written == 0) return kFailure;
  *length = written;
  return 0;
}

}  // namespace drix
