// A vector's elements by the byte shuffle (SSSE3).
//
// The shape of an element is the mask of its scalars' bytes, from which a shuffle of each 16 bytes follows: put together
// from tables, eight bytes at a time, as quickly as an element is written by it. So no shape is slow, and none is
// remembered but that of the element before.
#pragma once

#include "runtime/element_type.h"

#if defined(__x86_64__) || defined(__i386__)
#define DRIX_HAS_SHUFFLES

#include <tmmintrin.h>

#include <cstring>

#define DRIX_SHUFFLES gnu::target("ssse3,popcnt")

namespace drix {

using Vector = __m128i;

// Shuffles of eight bytes by the mask of those that count, which are moved together or apart again.
struct HalfShuffles {
  uint8_t together[256][kHalf];
  uint8_t apart[256][kHalf];
  uint8_t joined[kHalf + 1][kWindow];  // moves the second half behind so many bytes of the first
  uint8_t behind[kHalf + 1][kWindow];  // so many, for each byte of the second half

  constexpr HalfShuffles() : together(), apart(), joined(), behind() {
    for (uint32_t mask = 0; mask < 256; ++mask) {
      uint8_t count = 0;
      for (uint8_t i = 0; i < kHalf; ++i) {
        const bool counts = (mask >> i & 1) != 0;
        apart[mask][i] = counts ? count : kNothing;
        if (counts) together[mask][count++] = i;
      }
    }
    for (uint8_t first = 0; first <= kHalf; ++first) {
      for (uint8_t i = 0; i < kHalf; ++i) {
        joined[first][i] = i;
        behind[first][kHalf + i] = first;
      }
      for (uint8_t i = 0; i < kHalf; ++i) joined[first][first + i] = static_cast<uint8_t>(kHalf + i);
    }
  }
};

inline constexpr HalfShuffles kHalfShuffles;

[[DRIX_SHUFFLES, gnu::always_inline]] inline Vector load_window(const void *from) {
  return _mm_loadu_si128(static_cast<const Vector *>(from));
}

template <class T, std::size_t size>
[[DRIX_SHUFFLES, gnu::always_inline]] inline Vector load_window(const std::array<T, size> &from) {
  static_assert(sizeof from == kWindow);
  return load_window(static_cast<const void *>(from.data()));
}

[[DRIX_SHUFFLES, gnu::always_inline]] inline void store_window(uint8_t *to, Vector window) {
  _mm_storeu_si128(reinterpret_cast<Vector *>(to), window);
}

[[DRIX_SHUFFLES, gnu::always_inline]] inline Vector join_halves(const uint8_t *first, const uint8_t *second) {
  long long halves[2];
  std::memcpy(&halves[0], first, kHalf);
  std::memcpy(&halves[1], second, kHalf);
  return _mm_set_epi64x(halves[1], halves[0]);
}

[[DRIX_SHUFFLES, gnu::always_inline]] inline void store_halves(uint8_t *first, uint8_t *second, Vector window) {
  const long long halves[2] = {window[0], window[1]};
  std::memcpy(first, &halves[0], kHalf);
  std::memcpy(second, &halves[1], kHalf);
}

[[DRIX_SHUFFLES, gnu::always_inline]] inline void copy_array(uint8_t *to, const uint8_t *from, std::size_t size) {
  if (size == kWindow) [[likely]]
    return store_window(to, load_window(from));
  for (; size >= kWord; size -= kWord, to += kWord, from += kWord) std::memcpy(to, from, kWord);
  for (; size > 0; --size) *to++ = *from++;
}

// What follows from the shape of the last element. A few dimensions of the type are constants, for which the loops are
// unrolled.
template <std::size_t windows, std::size_t heads>
class ShapedTable {
 public:
  [[DRIX_SHUFFLES, gnu::always_inline]] explicit ShapedTable(const ElementType &type)
      : type_(type), tail_size_(type.tail_size) {
    if (type.array_count == 1 && type.arrays[0].size == kWindow) {
      const ElementType::Array &array = type.arrays[0];
      address_words_ = array.distance | uint64_t{array.elements} << 32;
      address_ = array.source;
    }
  }

  // From which scalars are there: 0xFF at the number of each.
  [[DRIX_SHUFFLES, gnu::always_inline]] void make_head(Vector there) {
    const Vector widths = _mm_and_si128(load_window(type_.widths), there);
    Vector ends = widths;
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 1));
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 2));
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 4));
    ends = _mm_add_epi8(ends, _mm_slli_si128(ends, 8));
    const Vector places = _mm_and_si128(_mm_add_epi8(_mm_sub_epi8(ends, widths), _mm_set1_epi8(kWord)), there);
    const Vector size = _mm_shuffle_epi8(ends, _mm_set1_epi16(static_cast<short>(kNothing << 8 | (kMostScalars - 1))));
#pragma GCC unroll 3
    for (std::size_t i = 0; i < heads; ++i) {
      const ElementType::Head &entries = type_.heads[i];
      const Vector moved = _mm_add_epi16(load_window(entries.fixed), _mm_and_si128(load_window(entries.moving), size));
      head[i] = _mm_or_si128(_mm_shuffle_epi8(places, load_window(entries.numbers)), moved);
    }
  }

  // Of a window whose scalars have these bytes; windows follow each other from end on.
  template <bool writing>
  [[DRIX_SHUFFLES, gnu::always_inline]] void make_order(std::size_t i, uint32_t bytes) {
    const auto &halves = writing ? kHalfShuffles.together : kHalfShuffles.apart;
    const auto first = static_cast<uint32_t>(__builtin_popcount(bytes & 0xFF));
    const Vector both = join_halves(halves[bytes & 0xFF], halves[bytes >> 8]);
    if constexpr (writing) {
      const Vector apart = _mm_or_si128(both, load_window(kHalfShuffles.behind[kHalf]));
      order[i] = _mm_shuffle_epi8(apart, load_window(kHalfShuffles.joined[first]));
    } else {
      order[i] = _mm_add_epi8(both, load_window(kHalfShuffles.behind[first]));
    }
    at[i] = end;
    end += static_cast<std::size_t>(__builtin_popcount(bytes));
  }

  [[DRIX_SHUFFLES, gnu::always_inline]] bool has_head(const Vector (&other)[heads]) const {
    Vector equal = _mm_or_si128(_mm_cmpeq_epi8(other[heads - 1], head[heads - 1]), load_window(type_.behind));
#pragma GCC unroll 2
    for (std::size_t i = 0; i + 1 < heads; ++i) equal = _mm_and_si128(equal, _mm_cmpeq_epi8(other[i], head[i]));
    return _mm_movemask_epi8(equal) == 0xFFFF;
  }

  // Writes what stands behind the scalars.
  [[DRIX_SHUFFLES, gnu::always_inline]] uint8_t *write_arrays(uint8_t *tail, const uint8_t *record) const {
    if (address_words_ != 0) {
      store(tail, address_words_);
      store_window(tail + kOffsetAndCount, load_window(record + address_));
      return tail + kOffsetAndCount + kWindow;
    }
    for (uint32_t i = 0; i < type_.array_count; ++i) {
      const ElementType::Array &array = type_.arrays[i];
      store(tail + array.word, array.distance);
      store(tail + array.count, array.elements);
      copy_array(tail + array.count + kWord, record + array.source, array.size);
    }
    return tail + tail_size_;
  }

  // False when that is anything else.
  [[DRIX_SHUFFLES, gnu::always_inline]] bool read_arrays(const uint8_t *tail, uint8_t *record) const {
    if (address_words_ != 0) {
      store_window(record + address_, load_window(tail + kOffsetAndCount));
      return load<uint64_t>(tail) == address_words_;
    }
    uint32_t difference = 0;
    for (uint32_t i = 0; i < type_.array_count; ++i) {
      const ElementType::Array &array = type_.arrays[i];
      difference |= load<uint32_t>(tail + array.word) ^ array.distance;
      difference |= load<uint32_t>(tail + array.count) ^ array.elements;
      copy_array(record + array.source, tail + array.count + kWord, array.size);
    }
    return difference == 0;
  }

  Vector head[heads] = {};
  Vector order[windows] = {};
  std::size_t at[windows] = {};  // where each window's scalars stand in the table
  std::size_t end = 0;           // of the scalars

 private:
  const ElementType &type_;
  const uint32_t tail_size_;
  uint64_t address_words_ = 0;  // before the only array when that has the size of an address, else 0
  std::size_t address_ = 0;     // where it is in the record
};

// Writes the elements of types with so many windows and heads.
template <std::size_t windows, std::size_t heads>
[[DRIX_SHUFFLES]] uint8_t *write_by_shuffles(const ElementType &type, uint8_t *words, uint32_t count,
                                             const void *records, uint8_t *end) {
  ShapedTable<windows, heads> shaped(type);
  SameShape same;
  const std::size_t record_size = type.record_size;
  const uint32_t vtable_length = type.vtable_length;
  const uint32_t last = type.last_written;
  const auto *record = static_cast<const uint8_t *>(records);
  for (; count > last; --count, words += kWord, record += record_size) {
    Vector values[windows];
    Vector found[windows];  // the top bit of each scalar is set where that is not zero
    uint64_t shape = 0;
#pragma GCC unroll 4
    for (std::size_t i = 0; i < windows; ++i) {
      const ElementType::Window &window = type.windows[i];
      const Vector rest = load_window(window.rest);
      values[i] = join_halves(record + window.places[0], record + window.places[1]);
      // Where a scalar has any other bit, adding all of them to it carries into the top bit, and never beyond.
      found[i] = _mm_or_si128(_mm_add_epi64(_mm_and_si128(values[i], rest), rest), values[i]);
      const Vector bytes = _mm_shuffle_epi8(found[i], load_window(type.shuffles[i].top));
      shape |= uint64_t{static_cast<uint32_t>(_mm_movemask_epi8(bytes))} << (kWindow * i);
    }
    if (!same.expected() || !same.as_before(shape)) {
      Vector tops = _mm_setzero_si128();
      shaped.end = kWord;
#pragma GCC unroll 4
      for (std::size_t i = 0; i < windows; ++i) {
        tops = _mm_or_si128(tops, _mm_shuffle_epi8(found[i], load_window(type.shuffles[i].tops)));
        shaped.template make_order<true>(i, static_cast<uint32_t>(shape >> (kWindow * i)) & 0xFFFF);
      }
      shaped.make_head(_mm_cmpgt_epi8(_mm_setzero_si128(), tops));
    }
    same.met(shape);
    uint8_t *const table = end + vtable_length;
    store(words, static_cast<uint32_t>(table - words));
#pragma GCC unroll 3
    for (std::size_t i = 0; i < heads; ++i) store_window(end + kWindow * i, shaped.head[i]);
    store(table, vtable_length);
#pragma GCC unroll 4
    for (std::size_t i = 0; i < windows; ++i) {
      store_window(table + shaped.at[i], _mm_shuffle_epi8(values[i], shaped.order[i]));
    }
    end = shaped.write_arrays(table + shaped.end, record);
  }
  return write_each(type, words, count, record, end);
}

// Reads them, until one is not what a writer of this library makes of its shape.
template <std::size_t windows, std::size_t heads>
[[DRIX_SHUFFLES]] uint32_t read_by_shuffles(const ElementType &type, const uint8_t *buffer, uint32_t length,
                                            uint32_t words, uint32_t count, void *records) {
  ShapedTable<windows, heads> shaped(type);
  SameShape same;
  const std::size_t record_size = type.record_size;
  const uint32_t vtable_length = type.vtable_length;
  const uint32_t first = kWord + vtable_length;
  const std::size_t look = std::max<std::size_t>(kWindow * heads - vtable_length, kWord);
  const uint32_t tail_size = type.tail_size;
  uint64_t shape = 0;
  auto *record = static_cast<uint8_t *>(records);
  for (uint32_t done = 0; done + type.last_read < count; ++done, words += kWord, record += record_size) {
    const uint64_t position = uint64_t{words} + load_once<uint32_t>(buffer + words);
    if (position < first || position + look > length) return done;
    const uint8_t *const start = buffer + position;
    Vector head[heads];
#pragma GCC unroll 3
    for (std::size_t i = 0; i < heads; ++i) {
      head[i] = load_window(start - vtable_length + kWindow * i);
      __asm__("" : "+x"(head[i]));  // not to be loaded again
    }
    if (!same.expected() || !shaped.has_head(head)) {
      Vector places = _mm_setzero_si128();
#pragma GCC unroll 3
      for (std::size_t i = 0; i < heads; ++i) {
        places = _mm_or_si128(places, _mm_shuffle_epi8(head[i], load_window(type.heads[i].entries)));
      }
      const Vector zero = _mm_setzero_si128();
      const Vector there = _mm_cmpeq_epi8(_mm_cmpeq_epi8(places, zero), zero);
      shape = static_cast<uint32_t>(_mm_movemask_epi8(there));
      shaped.end = kWord;
#pragma GCC unroll 4
      for (std::size_t i = 0; i < windows; ++i) {
        const Vector bytes = _mm_shuffle_epi8(there, load_window(type.shuffles[i].numbers));
        shaped.template make_order<false>(i, static_cast<uint32_t>(_mm_movemask_epi8(bytes)));
      }
      shaped.make_head(there);
      if (!shaped.has_head(head)) return done;
    }
    same.met(shape);
    const std::size_t reach = std::max(shaped.end + tail_size, shaped.at[windows - 1] + kWindow);
    if (length - position < reach || load<uint32_t>(start) != vtable_length) return done;
#pragma GCC unroll 4
    for (std::size_t i = 0; i < windows; ++i) {
      const auto &places = type.windows[i].places;
      const Vector values = _mm_shuffle_epi8(load_window(start + shaped.at[i]), shaped.order[i]);
      store_halves(record + places[0], record + places[1], values);
    }
    if (!shaped.read_arrays(start + shaped.end, record)) return done;
  }
  return count - std::min<uint32_t>(count, type.last_read);
}

}  // namespace drix

#endif
