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

#include <algorithm>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "kelvodrix.h"

namespace kelvodrix {

inline constexpr uint32_t kMagic = 0x3252444B;  // "KDR2"
inline constexpr size_t kHeaderBytes = 20;
inline constexpr size_t kMessageOverhead = 8;
inline constexpr size_t kAcknowledgementBytes = 8;

// A loop over bytes would stay one when compiled, and take a good part of a receiver's time.
template <typename T>
T little_endian(T value) {
  if constexpr (std::endian::native == std::endian::little)
    return value;
  else if constexpr (sizeof(T) == sizeof(uint32_t))
    return __builtin_bswap32(value);
  else
    return __builtin_bswap64(value);
}

template <typename T>
T load(const uint8_t *from) {
  T value;
  std::memcpy(&value, from, sizeof(T));
  return little_endian(value);
}

// Returns where it ends.
template <typename T>
uint8_t *store(uint8_t *to, T value) {
  value = little_endian(value);
  std::memcpy(to, &value, sizeof(T));
  return to + sizeof(T);
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

// Whether a frame of the right length, which starts with a whole header, is one of ours.
inline bool well_formed(std::span<const uint8_t> frame) {
  return load<uint32_t>(&frame[4]) == kMagic && load<uint32_t>(&frame[16]) <= KELVODRIX_MAX_FRAME_MESSAGES &&
         visit_messages(frame, [](uint32_t, const uint8_t *, uint32_t) {});
}

// Whether these bytes are a whole frame of this version.
inline bool is_frame(std::span<const uint8_t> bytes) {
  return bytes.size() >= kHeaderBytes && bytes.size() <= KELVODRIX_MAX_FRAME_BYTES &&
         load<uint32_t>(&bytes[0]) == bytes.size() && well_formed(bytes);
}

// Takes the first of several frames; what is left, if that is less.
inline std::span<const uint8_t> take_frame(std::span<const uint8_t> &frames) {
  const auto frame = frames.first(std::min<size_t>(frames.size(), load<uint32_t>(&frames[0])));
  frames = frames.subspan(frame.size());
  return frame;
}

// Whether these bytes are such frames, one or more behind each other.
inline bool are_frames(std::span<const uint8_t> bytes) {
  do {
    if (bytes.size() < kHeaderBytes || !is_frame(take_frame(bytes))) return false;
  } while (!bytes.empty());
  return true;
}

// Sets how many bytes a frame of the messages takes, or says why there can be none.
inline int32_t measure_frame(std::span<const DrixSendDescriptor> messages, size_t limit, size_t &frame_bytes) {
  frame_bytes = kHeaderBytes;
  if (messages.size() > KELVODRIX_MAX_FRAME_MESSAGES) return KELVODRIX_ERR_TOO_BIG;
  for (const DrixSendDescriptor &message : messages) {
    if (message.address == 0 && message.length != 0) return KELVODRIX_ERR_INVALID;
    if (message.length > limit) return KELVODRIX_ERR_TOO_BIG;  // or the sum could wrap
    frame_bytes += kMessageOverhead + message.length;
    if (frame_bytes > limit) return KELVODRIX_ERR_TOO_BIG;
  }
  return KELVODRIX_OK;
}

inline void write_messages(std::span<const DrixSendDescriptor> messages, uint8_t *to) {
  for (const DrixSendDescriptor &message : messages) {
    to = store(store(to, message.id), message.length);
    if (message.length != 0) std::memcpy(to, reinterpret_cast<const void *>(message.address), message.length);
    to += message.length;
  }
}

inline void write_frame(std::span<const DrixSendDescriptor> messages, size_t frame_bytes, uint64_t number,
                        uint8_t *to) {
  to = store(to, static_cast<uint32_t>(frame_bytes));
  write_messages(messages, store(store(store(to, kMagic), number), static_cast<uint32_t>(messages.size())));
}

inline void append_to_frame(std::span<const DrixSendDescriptor> messages, size_t more_bytes,
                            std::vector<uint8_t> &frame) {
  const size_t end = frame.size();
  const auto count = static_cast<uint32_t>(load<uint32_t>(&frame[16]) + messages.size());
  frame.resize(end + more_bytes);
  write_messages(messages, &frame[end]);
  store(&frame[0], static_cast<uint32_t>(frame.size()));
  store(&frame[16], count);
}

}  // namespace kelvodrix

#endif
