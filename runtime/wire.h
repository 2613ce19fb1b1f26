// Integers on the wire: little-endian and unaligned, whatever the host is.
#pragma once

#include <bit>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace drix {

inline constexpr bool kHostIsLittleEndian = std::endian::native == std::endian::little;

template <std::unsigned_integral T>
constexpr T to_wire_order(T value) {
  if constexpr (kHostIsLittleEndian || sizeof(T) == 1) return value;
  if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(value));
  if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(value));
  if constexpr (sizeof(T) == 8) return static_cast<T>(__builtin_bswap64(value));
}

template <std::unsigned_integral T>
T load(const uint8_t *from) {
  T value;
  std::memcpy(&value, from, sizeof value);
  return to_wire_order(value);
}

// The same value, of which the compiler no longer knows where it comes from.
template <std::unsigned_integral T>
[[gnu::always_inline]] inline T in_register(T value) {
  static_assert(sizeof(T) <= sizeof(std::size_t), "a register holds it");
  __asm__("" : "+r"(value));
  return value;
}

// Has the compiler take bytes from memory, piece by piece, where it would keep all in registers and shift the pieces
// out; and it cannot fetch them again from where they were copied.
template <class T>
[[gnu::always_inline]] inline void settle_in_memory(T &bytes) {
  __asm__("" : "+m"(bytes));
}

// Of bytes that decide about an address. They are read from memory once, so that what was checked is what is used, also
// when another process writes to the buffer meanwhile.
template <std::unsigned_integral T>
[[gnu::always_inline]] inline T load_once(const uint8_t *from) {
  return in_register(load<T>(from));
}

// The value there, or zero when it is not wanted; it is read in any case. Left to themselves, compilers put the read
// behind a branch, which is mispredicted whenever data is new.
template <std::unsigned_integral T>
[[gnu::always_inline]] inline T load_if(bool wanted, const uint8_t *from) {
  const uint32_t value = in_register(uint32_t{load<T>(from)});
  return static_cast<T>(wanted ? value : 0);
}

template <std::unsigned_integral T>
void store(uint8_t *to, T value) {
  value = to_wire_order(value);
  std::memcpy(to, &value, sizeof value);
}

// Copies count elements between record and wire; the operation is its own inverse.
template <std::unsigned_integral T>
void copy_elements(void *to, const void *from, std::size_t count) {
  if constexpr (kHostIsLittleEndian || sizeof(T) == 1) {
    std::memcpy(to, from, count * sizeof(T));
  } else {
    for (std::size_t i = 0; i < count; ++i) {
      T value;
      std::memcpy(&value, static_cast<const uint8_t *>(from) + i * sizeof(T), sizeof(T));
      store(static_cast<uint8_t *>(to) + i * sizeof(T), value);
    }
  }
}

constexpr std::size_t round_up(std::size_t value, std::size_t multiple) {
  return (value + multiple - 1) / multiple * multiple;
}

// A count word, an offset word and the root offset have this size, and so has a table's distance to its vtable.
inline constexpr uint32_t kWord = 4;

// What stands before the elements of an array, byte string or vector: its offset word and its count word.
inline constexpr uint32_t kOffsetAndCount = 2 * kWord;

// Vtable length and table size stand before the slot entries.
inline constexpr uint32_t kVtableHeader = 4;

constexpr uint32_t vtable_length(std::size_t slots) { return static_cast<uint32_t>(kVtableHeader + 2 * slots); }

// Vectors and word arrays hold fewer elements than this.
inline constexpr uint32_t kCountLimit = 0x40000000;

}  // namespace drix
