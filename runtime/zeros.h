// Zeros among the scalars of a record, found for the whole record at once: a branch on each of them would be
// mispredicted whenever data is new.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// What is looked at together: lanes of 8 bytes.
template <bool wide>
struct ZeroLanes {
  using Type = uint64_t;
  static uint64_t together(const Type &lanes) { return lanes; }
};

// In the compilers' own notation, which they translate for every architecture. By reference, as architectures differ in
// how such a value is passed.
template <>
struct ZeroLanes<true> {
  typedef uint64_t Type __attribute__((vector_size(16)));
  [[gnu::always_inline]] static uint64_t together(const Type &lanes) { return lanes[0] | lanes[1]; }
};

// Cuts a record into blocks of lanes; the last one reaches back rather than past the record's end. No scalar lies
// across lanes: the size of a record is a multiple of its scalars' alignment.
template <class R>
class Zeros {
  using BlockLanes = ZeroLanes<(sizeof(R) >= 16)>;
  using Lanes = typename BlockLanes::Type;

 public:
  // Whether a scalar is zero, of the record itself or of those embedded in it.
  [[gnu::always_inline]] static bool any(const R &record) {
    Lanes found{};
    for_each_block([&]<std::size_t block>() {
      Lanes zeros;
      find<block>(record, zeros);
      found |= zeros;
    });
    return BlockLanes::together(found) != 0;
  }

 private:
  static constexpr std::size_t kBlock = sizeof(Lanes);
  static constexpr std::size_t kBlocks = (sizeof(R) + kBlock - 1) / kBlock;

  static constexpr std::size_t first(std::size_t block) {
    return sizeof(R) < kBlock ? 0 : std::min(block * kBlock, sizeof(R) - kBlock);
  }

  static constexpr std::size_t top_byte(std::size_t width) { return kHostIsLittleEndian ? width - 1 : 0; }

  // Of the scalars in one block.
  struct Patterns {
    std::array<uint8_t, kBlock> tops{};  // their top bits
    std::array<uint8_t, kBlock> rest{};  // all their other bits
    bool used = false;
  };

  // A scalar that two blocks hold belongs to the first of them.
  template <class T>
  static constexpr void add_scalars(Patterns &patterns, std::size_t block, std::size_t start) {
    for_each_slot<T>([&]<class S>(S) constexpr {
      const std::size_t at = start + S::offset;
      if constexpr (S::kind == Kind::scalar) {
        constexpr std::size_t kWidth = sizeof(typename S::Type);
        if (at / kBlock != block) return;
        const std::size_t in_block = at - first(block);
        for (std::size_t i = 0; i < kWidth; ++i) patterns.rest[in_block + i] = 0xFF;
        patterns.rest[in_block + top_byte(kWidth)] = 0x7F;
        patterns.tops[in_block + top_byte(kWidth)] = 0x80;
        patterns.used = true;
      } else if constexpr (S::kind == Kind::table) {
        add_scalars<typename S::Type>(patterns, block, at);
      }
    });
  }

  template <std::size_t block>
  static constexpr Patterns kPatterns = [] {
    Patterns patterns;
    add_scalars<R>(patterns, block, 0);
    return patterns;
  }();

  // Finds the top bit of each zero. Where a scalar has any other bit, adding all of them to it carries into the top
  // bit, and never beyond.
  template <std::size_t block>
  [[gnu::always_inline]] static void find(const R &record, Lanes &zeros) {
    Lanes value{};
    Lanes tops;
    Lanes rest;
    std::memcpy(&value, reinterpret_cast<const uint8_t *>(&record) + first(block), std::min(kBlock, sizeof(R)));
    std::memcpy(&tops, kPatterns<block>.tops.data(), kBlock);
    std::memcpy(&rest, kPatterns<block>.rest.data(), kBlock);
    zeros = ~(((value & rest) + rest) | value) & tops;
  }

  // Calls visit.operator()<block>() for each block with a scalar.
  template <class Visit>
  [[gnu::always_inline]] static void for_each_block(Visit visit) {
    const auto visit_used = [&]<std::size_t block>() __attribute__((always_inline)) {
      if constexpr (kPatterns<block>.used) visit.template operator()<block>();
    };
    [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
      (visit_used.template operator()<I>(), ...);
    }
    (std::make_index_sequence<kBlocks>());
  }
};

}  // namespace drix
