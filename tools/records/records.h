// Records of any type, at run time: filling them and comparing them by a description of the type, be it the compiler's
// or one that the tests have typed in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "describe/type.h"

namespace records {

using drix::Kind;
using drix::describe::SlotInfo;
using drix::describe::Type;

inline bool is_owner(const SlotInfo &slot) { return slot.kind == Kind::bytes || slot.kind == Kind::vector; }

// Of a scalar or array.
inline uint32_t numbers(const SlotInfo &slot) { return slot.kind == Kind::array ? slot.elements : 1; }

inline std::size_t member_size(const SlotInfo &slot) {
  if (is_owner(slot)) return sizeof(uint8_t *);
  return slot.kind == Kind::table ? slot.inner->record_size : std::size_t{slot.width} * numbers(slot);
}

// Of what an owner points to.
inline std::size_t element_size(const SlotInfo &slot) {
  return slot.kind == Kind::vector ? slot.inner->record_size : 1;
}

inline uint32_t length_in(const void *record, const SlotInfo &slot) {
  uint32_t length;
  std::memcpy(&length, static_cast<const uint8_t *>(record) + slot.length_member, sizeof length);
  return length;
}

inline uint8_t *block_in(const void *record, const SlotInfo &slot) {
  uint8_t *block;
  std::memcpy(&block, static_cast<const uint8_t *>(record) + slot.member, sizeof block);
  return block;
}

inline void point(void *record, const SlotInfo &slot, uint8_t *block, uint32_t length) {
  std::memcpy(static_cast<uint8_t *>(record) + slot.length_member, &length, sizeof length);
  std::memcpy(static_cast<uint8_t *>(record) + slot.member, &block, sizeof block);
}

// Writes a number of so many bytes in the host's order.
inline void store_number(uint8_t *to, uint32_t width, uint32_t number) {
  const auto byte = static_cast<uint8_t>(number);
  const auto half = static_cast<uint16_t>(number);
  if (width == 1) std::memcpy(to, &byte, 1);
  if (width == 2) std::memcpy(to, &half, 2);
  if (width == 4) std::memcpy(to, &number, 4);
}

// Owns what records point to: each block by itself, so that a sanitizer sees its ends.
class Arena {
 public:
  uint8_t *allocate(std::size_t size) {
    blocks_.push_back(std::make_unique<uint8_t[]>(size));  // of zeros
    return blocks_.back().get();
  }

 private:
  std::vector<std::unique_ptr<uint8_t[]>> blocks_;
};

// What a byte string or vector is to have; a length may come without a block and a block without a length.
struct Extent {
  uint32_t length;
  bool has_block;
};

// Fills a record of zeros. The content says what with:
//   uint32_t number(uint32_t width);  for a scalar, an element of an array or a byte of a byte string
//   Extent extent(Kind kind);         for a byte string or a vector
// It may also want to know where elements of a vector start:
//   void start_element(uint32_t i);
template <class Content>
void fill(const Type &type, void *record, Content &content, Arena &arena) {
  for (const SlotInfo &slot : type.slots) {
    uint8_t *const member = static_cast<uint8_t *>(record) + slot.member;
    if (slot.kind == Kind::table) {
      fill(*slot.inner, member, content, arena);
    } else if (is_owner(slot)) {
      const Extent extent = content.extent(slot.kind);
      const std::size_t size = element_size(slot);
      uint8_t *const block = extent.has_block ? arena.allocate(extent.length * size) : nullptr;
      for (uint32_t i = 0; extent.has_block && i < extent.length; ++i) {
        if (slot.kind == Kind::bytes) store_number(block + i, 1, content.number(1));
        if (slot.kind != Kind::vector) continue;
        if constexpr (requires { content.start_element(i); }) content.start_element(i);
        fill(*slot.inner, block + i * size, content, arena);
      }
      point(record, slot, block, extent.length);
    } else {
      for (uint32_t i = 0; i < numbers(slot); ++i) {
        store_number(member + std::size_t{slot.width} * i, slot.width, content.number(slot.width));
      }
    }
  }
}

// SplitMix64: draws the same on every processor, and costs nothing to set up.
class Random {
 public:
  explicit Random(uint64_t seed) : state_(seed) {}

  uint64_t draw() {
    state_ += 0x9E3779B97F4A7C15;
    uint64_t mixed = state_;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return mixed ^ mixed >> 31;
  }

  uint32_t below(uint32_t limit) { return static_cast<uint32_t>((draw() >> 32) * limit >> 32); }

 private:
  uint64_t state_;
};

// How random records are made. Zeros matter: the compact layout leaves zero scalars out.
struct Mix {
  uint32_t zeros = 0;  // so many numbers in a hundred are zero
  uint32_t most_bytes = 4;
  uint32_t most_elements = 4;
  bool always_most = false;  // else byte strings and vectors are of any length up to that
  // So many elements in a hundred have their zeros where the one before has, the others where one of a few shapes has;
  // 0: each has its own.
  uint32_t alike = 0;
};

// Random content, of which large and small numbers are equally likely.
class RandomContent {
 public:
  RandomContent(Random &random, const Mix &mix) : random_(random), mix_(mix) {}

  void start_element(uint32_t i) {
    if (mix_.alike == 0) return;
    if (i == 0) shapes_ = {};
    if (i == 0 || random_.below(100) >= mix_.alike) shape_ = random_.below(kShapes);
    first_ = shapes_[shape_].empty();
    next_ = 0;
  }

  uint32_t number(uint32_t width) {
    std::vector<bool> &shape = shapes_[shape_];
    const bool zero = !first_ && next_ < shape.size() ? shape[next_++] : random_.below(100) < mix_.zeros;
    if (first_) shape.push_back(zero);
    if (zero) return 0;
    const uint64_t drawn = random_.draw();
    const uint32_t bits = 8 * width;
    const auto number = static_cast<uint32_t>(drawn >> (64 - bits)) >> (drawn % bits);
    return number != 0 ? number : 1;
  }

  Extent extent(Kind kind) {
    const uint32_t most = kind == Kind::bytes ? mix_.most_bytes : mix_.most_elements;
    const uint32_t length = mix_.always_most ? most : random_.below(most + 1);
    return {length, length != 0};
  }

 private:
  Random &random_;
  Mix mix_;

  // Which numbers of an element are zero, and which of those lists it keeps to, or is the first to have.
  static constexpr uint32_t kShapes = 4;
  std::array<std::vector<bool>, kShapes> shapes_;
  uint32_t shape_ = 0;
  bool first_ = false;
  std::size_t next_ = 0;
};

inline void fill_random(const Type &type, void *record, Random &random, const Mix &mix, Arena &arena) {
  RandomContent content(random, mix);
  fill(type, record, content, arena);
}

// The first member in which two records differ, such as "f1[2].f7", or empty. Padding counts, too. Pointers count by
// what they point to and by whether they are null: a record that its decoder gave up has lengths without blocks.
inline std::string first_difference(const Type &type, const void *a, const void *b) {
  const auto *const bytes_a = static_cast<const uint8_t *>(a);
  const auto *const bytes_b = static_cast<const uint8_t *>(b);
  const auto differ = [=](std::size_t from, std::size_t to) {
    return std::memcmp(bytes_a + from, bytes_b + from, to - from) != 0;
  };
  std::size_t end = 0;  // of the member before
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    const auto name = [i] { return "f" + std::to_string(i); };
    if (is_owner(slot)) {
      if (differ(end, slot.length_member)) return "padding before " + name();
      end = slot.length_member + sizeof(uint32_t);
      if (differ(slot.length_member, end)) return name() + (slot.kind == Kind::bytes ? "Len" : "Count");
    }
    if (differ(end, slot.member)) return "padding before " + name();
    end = slot.member + member_size(slot);
    if (slot.kind == Kind::table) {
      const std::string within = first_difference(*slot.inner, bytes_a + slot.member, bytes_b + slot.member);
      if (!within.empty()) return name() + "." + within;
    } else if (is_owner(slot)) {
      const uint8_t *const block_a = block_in(a, slot);
      const uint8_t *const block_b = block_in(b, slot);
      const uint32_t length = length_in(a, slot);
      if ((block_a == nullptr) != (block_b == nullptr)) return name();
      if (block_a == nullptr) continue;
      if (slot.kind == Kind::bytes && std::memcmp(block_a, block_b, length) != 0) return name();
      for (uint32_t k = 0; slot.kind == Kind::vector && k < length; ++k) {
        const std::size_t at = k * element_size(slot);
        const std::string within = first_difference(*slot.inner, block_a + at, block_b + at);
        if (!within.empty()) return name() + "[" + std::to_string(k) + "]." + within;
      }
    } else if (differ(slot.member, end)) {
      return name();
    }
  }
  return differ(end, type.record_size) ? "padding at the end" : "";
}

}  // namespace records
