// Blocks of a trace file, as they are written into its mapping.
//
// A file is laid out in cells of one size, each a block by itself: a filler first, a packet later. What turns it into a
// packet is one store of its type, after all else is in place, so that the chain of blocks is whole at every moment,
// whoever else is writing. A longer packet takes several cells, which are joined into one filler before.
#pragma once

#include <endian.h>

#include <atomic>
#include <cstdint>
#include <cstring>

#include "capture/format.h"

namespace trace {

constexpr uint32_t kCellBytes = 256;

// Of a packet block: what stands before the packet's bytes, in the option with its direction, and at the end of the
// options with the length that every block ends with.
constexpr uint32_t kPacketStart = 28;
constexpr uint32_t kDirectionBytes = 8;
constexpr uint32_t kPacketEnd = 8;
constexpr uint32_t kOverhead = kPacketStart + TRACE_HEADER_BYTES + kDirectionBytes + kPacketEnd;

// Readers refuse packets of more than 256 KiB.
constexpr uint32_t kLongestPayload = 0x40000 - TRACE_HEADER_BYTES;

constexpr uint32_t round_up(uint32_t value, uint32_t unit) { return (value + unit - 1) / unit * unit; }
constexpr uint32_t cells_for(uint32_t payload) {
  return (kOverhead + round_up(payload, 4) + kCellBytes - 1) / kCellBytes;
}
constexpr uint32_t payload_of(uint32_t cells) { return cells * kCellBytes - kOverhead; }

inline void put(uint8_t *at, uint16_t value) { std::memcpy(at, &value, sizeof value); }
inline void put(uint8_t *at, uint32_t value) { std::memcpy(at, &value, sizeof value); }

inline uint32_t load_word(const uint8_t *at) {
  uint32_t value;
  std::memcpy(&value, at, sizeof value);
  return value;
}

// Stores a word that other processes may be reading; release: after all that was stored before.
inline void store_word(uint8_t *at, uint32_t value, std::memory_order order) {
  auto *const word = reinterpret_cast<uint32_t *>(at);
  if (order == std::memory_order_release) {
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
  } else {
    __atomic_store_n(word, value, __ATOMIC_RELAXED);
  }
}

inline void put_filler(uint8_t *at, uint32_t bytes) {
  put(at, TRACE_FILLER_BLOCK);
  put(at + 4, bytes);
  put(at + bytes - 4, bytes);
}

// Makes one filler of several. Between its last two stores the chain is not whole, so nothing may come between them: a
// sanitizer's checks are left out, and a page that is not at hand is fetched by the store before.
[[gnu::noinline]] __attribute__((no_sanitize("address", "thread", "undefined"))) inline void join_cells(
    uint8_t *at, uint32_t bytes) {
  auto *const type = reinterpret_cast<volatile uint32_t *>(at);
  auto *const end = reinterpret_cast<volatile uint32_t *>(at + bytes - 4);
  *type = TRACE_FILLER_BLOCK;
  *end = bytes;
  type[1] = bytes;
}

inline uint32_t block_bytes(const uint8_t *at) { return load_word(at + 4); }

// Turns a filler that has been filled into a packet.
inline void publish(uint8_t *at) { store_word(at, TRACE_PACKET_BLOCK, std::memory_order_release); }

struct Header {
  TraceKind kind;
  uint32_t id = 0;
  uint32_t handle = 0;
  uint32_t destination = 0;
  int32_t status = 0;
  uint32_t index = 0;
  uint32_t count = 1;
  uint32_t thread = 0;
};

inline void put_little(uint8_t *at, uint32_t value) { put(at, htole32(value)); }

inline void put_header(uint8_t *at, const Header &header) {
  const uint8_t start[4] = {'Q', 'T', TRACE_VERSION, static_cast<uint8_t>(header.kind)};
  std::memcpy(at, start, sizeof start);
  put_little(at + TRACE_ID_AT, header.id);
  put_little(at + TRACE_HANDLE_AT, header.handle);
  put_little(at + TRACE_DESTINATION_AT, header.destination);
  put_little(at + TRACE_STATUS_AT, static_cast<uint32_t>(header.status));
  put_little(at + TRACE_INDEX_AT, header.index);
  put_little(at + TRACE_COUNT_AT, header.count);
  put_little(at + TRACE_THREAD_AT, header.thread);
}

// The status of a packet that is published already.
inline void put_status(uint8_t *block, int32_t status) {
  store_word(block + kPacketStart + TRACE_STATUS_AT, htole32(static_cast<uint32_t>(status)), std::memory_order_relaxed);
}

// Fills up the options of a block with one for local use, which readers pass over, shorter than a cell.
inline void put_slack(uint8_t *at, uint32_t bytes) {
  constexpr uint16_t kSlackOption = 0x8051;
  if (bytes == 0) return;
  put(at, kSlackOption);
  put(at + 2, static_cast<uint16_t>(bytes - 4));
}

// Fills a block of bytes, which are at least kOverhead + captured and a multiple of 4, with all of a packet but the
// block's type and length. original is the payload's length before it was cut to what is captured.
inline void fill_packet(uint8_t *block, uint32_t bytes, uint64_t time, const Header &header, const void *payload,
                        uint32_t captured, uint32_t original) {
  put(block + 8, uint32_t{0});  // the interface
  put(block + 12, static_cast<uint32_t>(time >> 32));
  put(block + 16, static_cast<uint32_t>(time));
  put(block + 20, captured + TRACE_HEADER_BYTES);
  put(block + 24, original > UINT32_MAX - TRACE_HEADER_BYTES ? UINT32_MAX : original + TRACE_HEADER_BYTES);
  put_header(block + kPacketStart, header);
  uint8_t *at = block + kPacketStart + TRACE_HEADER_BYTES;
  if (captured != 0) std::memcpy(at, payload, captured);
  at += captured;
  for (; (captured & 3) != 0; ++captured) *at++ = 0;

  constexpr uint16_t kDirectionOption = 2;
  if (header.kind != TRACE_NOTE) {
    put(at, kDirectionOption);
    put(at + 2, uint16_t{4});
    put(at + 4, header.kind == TRACE_SENT ? TRACE_OUTBOUND : TRACE_INBOUND);
    at += kDirectionBytes;
  }
  uint8_t *const end = block + bytes - kPacketEnd;
  put_slack(at, static_cast<uint32_t>(end - at));
  put(end, uint32_t{0});  // the end of the options
}

}  // namespace trace
