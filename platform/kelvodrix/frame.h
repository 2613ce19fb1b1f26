// The bytes of a frame, which is one ZeroMQ message part. All integers are little-endian and nothing is aligned.
//
//   header           u32 magic, u16 version, u16 kind, u64 link, u64 sequence
//   data             header, u32 count, then count times: u32 id, u32 length, length bytes
//   probe            header; asks for an acknowledgement
//   acknowledgement  header, u64 first, u64 last
//
// The link tells one sender's connection to one endpoint from all others. A data frame carries its own sequence number,
// a probe that of the last data frame before it, an acknowledgement the number up to which all is settled: the frames
// first to last were handled, the others up to there never will be.
#ifndef KELVODRIX_FRAME_H
#define KELVODRIX_FRAME_H

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "drix_bus.h"

namespace kelvodrix {

enum class Kind : uint16_t { kData = 1, kProbe = 2, kAcknowledgement = 3 };

inline constexpr uint32_t kMagic = 0x5852444B;  // "KDRX"
inline constexpr uint16_t kVersion = 1;
inline constexpr size_t kHeaderBytes = 24;
inline constexpr size_t kDataOverhead = kHeaderBytes + 4;
inline constexpr size_t kMessageOverhead = 8;
inline constexpr size_t kAcknowledgementBytes = kHeaderBytes + 16;

// Writes front to back into storage that the caller has made large enough.
class Writer {
 public:
  explicit Writer(void *to) : to_(static_cast<uint8_t *>(to)) {}

  template <typename T>
  void put(T value) {
    for (size_t i = 0; i < sizeof(T); ++i) *to_++ = static_cast<uint8_t>(value >> (8 * i));
  }

  void put(const void *bytes, size_t length) {
    if (length != 0) std::memcpy(to_, bytes, length);
    to_ += length;
  }

  void put_header(Kind kind, uint64_t link, uint64_t sequence) {
    put(kMagic);
    put(kVersion);
    put(static_cast<uint16_t>(kind));
    put(link);
    put(sequence);
  }

 private:
  uint8_t *to_;
};

struct Header {
  Kind kind;
  uint64_t link;
  uint64_t sequence;
};

struct Message {
  uint32_t id;
  uint32_t length;
  const uint8_t *bytes;
};

// Reads front to back; every operation fails, and reads nothing, where the frame ends too early.
class Reader {
 public:
  Reader(const void *bytes, size_t size) : at_(static_cast<const uint8_t *>(bytes)), left_(size) {}

  template <typename T>
  [[nodiscard]] bool get(T &value) {
    if (left_ < sizeof(T)) return false;
    value = 0;
    for (size_t i = 0; i < sizeof(T); ++i) value = static_cast<T>(value | static_cast<T>(T{at_[i]} << (8 * i)));
    skip(sizeof(T));
    return true;
  }

  [[nodiscard]] bool get(Header &header) {
    uint32_t magic;
    uint16_t version, kind;
    if (!get(magic) || !get(version) || !get(kind) || !get(header.link) || !get(header.sequence)) return false;
    header.kind = static_cast<Kind>(kind);
    return magic == kMagic && version == kVersion;
  }

  [[nodiscard]] bool get(Message &message) {
    if (!get(message.id) || !get(message.length) || message.length > left_) return false;
    message.bytes = at_;
    skip(message.length);
    return true;
  }

  [[nodiscard]] bool at_end() const { return left_ == 0; }

 private:
  void skip(size_t bytes) {
    at_ += bytes;
    left_ -= bytes;
  }

  const uint8_t *at_;
  size_t left_;
};

// Whether the rest of a data frame is exactly count messages.
[[nodiscard]] inline bool holds_exactly(Reader rest, uint32_t count) {
  Message message;
  while (count != 0 && rest.get(message)) --count;
  return count == 0 && rest.at_end();
}

}  // namespace kelvodrix

#endif
