// The send operations: encode records and hand them to the bus in one call.
#pragma once

#include <cstdint>

#include "runtime/encode.h"

namespace drix {

// What the shared send flow needs to know of a type.
struct Sender {
  uint32_t id;
  uint32_t record_size;
  uint32_t fixed_length;                                     // 0 for variable-length types
  void (*build_fixed)(uint8_t *buffer, const void *record);  // null for variable-length types
  uint32_t (*size)(const void *record);                      // null for fixed-length types
  uint32_t (*build)(uint8_t *buffer, uint32_t capacity, const void *record);
};

// One send operation each, see drix_message.h. destination 0 is the handle's default one.
int32_t send_single(const Sender &sender, uint32_t handle, const void *record, uint32_t destination);
int32_t send_batch(const Sender &sender, uint32_t handle, const void *records, uint32_t count, uint32_t destination);
int32_t send(const Sender &sender, uint32_t handle, const void *records, uint32_t count, uint32_t destination);

inline constexpr std::size_t kMaxFixedLength = 536;

template <class R>
constexpr Sender make_sender() {
  Sender sender = {};
  sender.id = kMessage<R>.id;
  sender.record_size = sizeof(R);
  if constexpr (kFixedLength<R>) {
    static_assert(fixed_length<R>() <= kMaxFixedLength, "a single record is encoded on the stack");
    sender.fixed_length = fixed_length<R>();
    sender.build_fixed = [](uint8_t *buffer, const void *record) {
      build_fixed(buffer, *static_cast<const R *>(record));
    };
  } else {
    sender.size = [](const void *record) { return size(static_cast<const R *>(record)); };
    sender.build = [](uint8_t *buffer, uint32_t capacity, const void *record) {
      return build(buffer, capacity, static_cast<const R *>(record));
    };
  }
  return sender;
}

template <class R>
inline constexpr Sender kSender = make_sender<R>();

}  // namespace drix
