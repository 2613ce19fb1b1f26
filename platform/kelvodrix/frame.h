// The bytes on a connection. All integers are little-endian and nothing is aligned.
//
//   sender to receiver: frames     u32 length of the whole frame, u32 magic, u64 number, u32 count,
//                                  then count times: u32 id, u32 length, length bytes
//   receiver to sender: u64        the number up to which all frames of this connection are handled; the kernel takes
//                                  so few bytes whole or not at all
//
// The frames of a connection are numbered 1, 2, 3, ...
#ifndef KELVODRIX_FRAME_H
#define KELVODRIX_FRAME_H

#include <cstddef>
#include <cstdint>
#include <span>

#include "kelvodrix.h"

namespace kelvodrix {

inline constexpr uint32_t kMagic = 0x3252444B;  // "KDR2"
inline constexpr size_t kHeaderBytes = 20;
inline constexpr size_t kMessageOverhead = 8;
inline constexpr size_t kAcknowledgementBytes = 8;

template <typename T>
T load(const uint8_t *from) {
  T value = 0;
  for (size_t i = 0; i < sizeof(T); ++i) value |= T{from[i]} << (8 * i);
  return value;
}

// Returns where it ends.
template <typename T>
uint8_t *store(uint8_t *to, T value) {
  for (size_t i = 0; i < sizeof(T); ++i) *to++ = static_cast<uint8_t>(value >> (8 * i));
  return to;
}

// Calls visit(id, bytes, length) for each message of a frame, which starts with a whole header. False when the frame
// does not hold exactly its messages, after those that could be read.
template <typename Visit>
bool visit_messages(std::span<const uint8_t> frame, Visit visit) {
  uint32_t count = load<uint32_t>(&frame[16]);
  for (frame = frame.subspan(kHeaderBytes); count != 0; --count) {
    if (frame.size() < kMessageOverhead) return false;
    const auto id = load<uint32_t>(&frame[0]), length = load<uint32_t>(&frame[4]);
    frame = frame.subspan(kMessageOverhead);
    if (length > frame.size()) return false;
    visit(id, frame.data(), length);
    frame = frame.subspan(length);
  }
  return frame.empty();
}

}  // namespace kelvodrix

#endif
