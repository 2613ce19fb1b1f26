#include "runtime/elements.h"

#include <algorithm>
#include <atomic>
#include <cstring>

#ifdef DRIX_HAS_SHUFFLES
#include <cpuid.h>
#endif

namespace drix {
namespace {

#ifndef DRIX_BEST_ELEMENT_WAY
#define DRIX_BEST_ELEMENT_WAY ElementWay::masks
#endif

// In the compilers' own notation, which they translate for every architecture.
typedef uint64_t Halves __attribute__((vector_size(kWindow)));

uint64_t load_half(const uint8_t *from) {
  uint64_t half;
  std::memcpy(&half, from, sizeof half);
  return half;
}

uint64_t sum_of_bytes(uint64_t bytes) {
  constexpr uint64_t kEven = 0x00FF00FF00FF00FF;
  return ((bytes & kEven) + (bytes >> 8 & kEven)) * 0x0001000100010001 >> 48;
}

// Finds the scalars of a window that are zero.
class WindowZeros {
 public:
  explicit WindowZeros(const ElementType::Window &window) : places_(window.places) {
    std::memcpy(&rest_, window.rest.data(), sizeof rest_);
    std::memcpy(&widths_, window.widths.data(), sizeof widths_);
    tops_ = (widths_ + 0x7F7F'7F7F'7F7F'7F7F) & 0x8080'8080'8080'8080;
  }

  // Their top bits, by reference, as architectures differ in how such a value is passed. Where a scalar has any other
  // bit, adding all of them to it carries into the top bit, and never beyond.
  [[gnu::always_inline]] void find(const uint8_t *record, Halves &zeros) const {
    const Halves value = {load_half(record + places_[0]), load_half(record + places_[1])};
    zeros = ~(((value & rest_) + rest_) | value) & tops_;
  }

  // How many bytes they have in so many records.
  uint64_t bytes(const uint8_t *record, std::size_t record_size, uint32_t count) const {
    uint64_t sum = 0;
    while (count != 0) {
      uint32_t now = std::min<uint32_t>(count, UINT8_MAX / sizeof(uint32_t));  // whose widths a byte can hold
      count -= now;
      Halves bytes = {};
      for (; now != 0; --now, record += record_size) {
        Halves zeros;
        find(record, zeros);
        bytes += ((zeros << 1) - (zeros >> 7)) & widths_;
      }
      sum += sum_of_bytes(bytes[0]) + sum_of_bytes(bytes[1]);
    }
    return sum;
  }

 private:
  const std::array<uint16_t, 2> places_;
  Halves rest_;
  Halves widths_;
  Halves tops_;
};

bool has_zero(const ElementType &type, const uint8_t *record) {
  Halves found = {};
  for (uint32_t i = 0; i < type.window_count; ++i) {
    Halves zeros;
    WindowZeros(type.windows[i]).find(record, zeros);
    found |= zeros;
  }
  return (found[0] | found[1]) != 0;
}

enum class ElementWay : uint8_t { unknown, each, shuffles, masks };

#ifdef DRIX_HAS_SHUFFLES
// The best way that this processor and its system know.
ElementWay find_element_way() {
  uint32_t a, b, c, d;
  constexpr uint32_t kShuffles = bit_SSSE3 | bit_POPCNT;
  if (__get_cpuid(1, &a, &b, &c, &d) == 0 || (c & kShuffles) != kShuffles) return ElementWay::each;
#ifdef DRIX_HAS_MASKS
  constexpr uint32_t kSystemKeepsMasks = 0xE6;  // with all vector registers
  constexpr uint32_t kB = bit_AVX512F | bit_AVX512BW | bit_AVX512VL | bit_BMI2;
  constexpr uint32_t kC = bit_AVX512VBMI | bit_AVX512VBMI2;
  if ((c & bit_OSXSAVE) == 0) return ElementWay::shuffles;
  uint32_t kept, upper;
  __asm__("xgetbv" : "=a"(kept), "=d"(upper) : "c"(0));
  if ((kept & kSystemKeepsMasks) != kSystemKeepsMasks) return ElementWay::shuffles;
  if (__get_cpuid_count(7, 0, &a, &b, &c, &d) != 0 && (b & kB) == kB && (c & kC) == kC) return ElementWay::masks;
#endif
  return ElementWay::shuffles;
}

ElementWay element_way() {
  static std::atomic<ElementWay> known = ElementWay::unknown;
  ElementWay way = known.load(std::memory_order_relaxed);
  if (way == ElementWay::unknown) [[unlikely]] {
    way = std::min(find_element_way(), ElementWay{DRIX_BEST_ELEMENT_WAY});
    known.store(way, std::memory_order_relaxed);
  }
  return way;
}
#endif

// The best one for a type.
ElementWay way_for([[maybe_unused]] const ElementType &type) {
#ifdef DRIX_HAS_SHUFFLES
  const ElementWay way = element_way();
#ifdef DRIX_HAS_MASKS
  if (type.masks != nullptr && way == ElementWay::masks) return way;
#endif
  if (type.write_by_shuffles != nullptr && way != ElementWay::each) return ElementWay::shuffles;
#endif
  return ElementWay::each;
}

}  // namespace

uint8_t *write_each(const ElementType &type, uint8_t *words, uint32_t count, const void *records, uint8_t *end) {
  const auto *record = static_cast<const uint8_t *>(records);
  for (; count != 0; --count, words += kWord, record += type.record_size) {
    store(words, static_cast<uint32_t>(end + type.vtable_length - words));
    end = type.build_table(end, record);
  }
  return end;
}

// An element without zeros is as quick by itself as by masks, and quicker than by shuffles. So those at the start are
// handled by themselves where that pays; in most tables all elements are like the first one.

uint8_t *write_elements(const ElementType &type, uint8_t *words, uint32_t count, const void *records, uint8_t *end) {
  constexpr uint32_t kFew = 8;  // elements, which are not worth loading what masks need
  const auto *record = static_cast<const uint8_t *>(records);
  const ElementWay way = way_for(type);
  bool is_full = (way != ElementWay::masks || count <= kFew) && type.last_read == 0 && !has_zero(type, record);
  for (; is_full && count != 0; --count, words += kWord, record += type.record_size) {
    uint8_t *const start = end;
    end = write_each(type, words, 1, record, start);
    is_full = end - start == type.full_size;
  }
#ifdef DRIX_HAS_MASKS
  if (way == ElementWay::masks) return write_by_masks(type, words, count, record, end);
#endif
#ifdef DRIX_HAS_SHUFFLES
  if (way == ElementWay::shuffles) return type.write_by_shuffles(type, words, count, record, end);
#endif
  return write_each(type, words, count, record, end);
}

uint32_t read_elements(const ElementType &type, const uint8_t *buffer, uint32_t length, uint32_t words, uint32_t count,
                       void *records) {
  const ElementWay way = way_for(type);
  auto *const record = static_cast<uint8_t *>(records);
  uint32_t done = 0;
  // Reads by itself; false when the element is not plain. Says whether it seems to be full, for which any answer is good.
  const auto read_one = [&](bool &is_full) {
    const uint64_t word = uint64_t{words} + uint64_t{kWord} * done;
    const uint64_t position = word + load_once<uint32_t>(buffer + word);
    if (position > length) return false;
    const uint8_t *const table = buffer + position;
    is_full = position >= type.vtable_length &&
              load<uint16_t>(table - type.vtable_length + 2) == type.full_size - type.vtable_length;
    return type.read_table(buffer, length, static_cast<uint32_t>(position),
                           record + done * std::size_t{type.record_size});
  };
  for (bool is_full = way == ElementWay::shuffles; is_full && done < count; ++done) {
    if (!read_one(is_full)) return done;
  }
#ifdef DRIX_HAS_MASKS
  if (way == ElementWay::masks) done = read_by_masks(type, buffer, length, words, count, record);
#endif
#ifdef DRIX_HAS_SHUFFLES
  if (way == ElementWay::shuffles) {
    done += type.read_by_shuffles(type, buffer, length, words + kWord * done, count - done,
                                  record + done * std::size_t{type.record_size});
  }
#endif
  for (bool is_full; done < count; ++done) {
    if (!read_one(is_full)) break;
  }
  return done;
}

uint64_t zero_bytes(const ElementType &type, const void *records, uint32_t count) {
  const auto *record = static_cast<const uint8_t *>(records);
  const uint32_t last = std::min<uint32_t>(count, type.last_read);
  uint64_t sum = 0;
  for (uint32_t i = 0; i < type.window_count; ++i) {
    sum += WindowZeros(type.windows[i]).bytes(record, type.record_size, count - last);
  }
  for (uint32_t i = count - last; i < count; ++i) {
    uint8_t half[kHalf] = {};
    std::memcpy(half, record + std::size_t{i} * type.record_size, type.record_size);
    sum += WindowZeros(type.windows[0]).bytes(half, 0, 1);
  }
  return sum;
}

}  // namespace drix
