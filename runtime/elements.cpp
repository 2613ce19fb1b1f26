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

// Of one window of so many records.
uint64_t zero_bytes_in_window(const ElementType::Window &window, const uint8_t *record, std::size_t record_size,
                              uint32_t count) {
  Halves rest;
  Halves widths;
  std::memcpy(&rest, window.rest.data(), sizeof rest);
  std::memcpy(&widths, window.widths.data(), sizeof widths);
  const Halves tops = (widths + 0x7F7F'7F7F'7F7F'7F7F) & 0x8080'8080'8080'8080;
  uint64_t sum = 0;
  while (count != 0) {
    uint32_t now = std::min<uint32_t>(count, UINT8_MAX / sizeof(uint32_t));  // whose widths a byte can hold
    count -= now;
    Halves bytes = {};
    for (; now != 0; --now, record += record_size) {
      const Halves value = {load_half(record + window.places[0]), load_half(record + window.places[1])};
      // Where a scalar has any other bit, adding all of them to it carries into the top bit, and never beyond.
      const Halves zeros = ~(((value & rest) + rest) | value) & tops;
      bytes += ((zeros << 1) - (zeros >> 7)) & widths;
    }
    sum += sum_of_bytes(bytes[0]) + sum_of_bytes(bytes[1]);
  }
  return sum;
}

#ifdef DRIX_HAS_SHUFFLES
enum class ElementWay : uint8_t { unknown, each, shuffles, masks };

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

// How many elements were read by the better ways.
uint32_t read_together([[maybe_unused]] const ElementType &type, [[maybe_unused]] const uint8_t *buffer,
                       [[maybe_unused]] uint32_t length, [[maybe_unused]] uint32_t words,
                       [[maybe_unused]] uint32_t count, [[maybe_unused]] void *records) {
#ifdef DRIX_HAS_MASKS
  if (type.masks != nullptr && element_way() == ElementWay::masks) {
    return read_by_masks(type, buffer, length, words, count, records);
  }
#endif
#ifdef DRIX_HAS_SHUFFLES
  if (type.read_by_shuffles != nullptr && element_way() >= ElementWay::shuffles) {
    return type.read_by_shuffles(type, buffer, length, words, count, records);
  }
#endif
  return 0;
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

uint8_t *write_elements(const ElementType &type, uint8_t *words, uint32_t count, const void *records, uint8_t *end) {
  // Of a few elements, those without zeros at the start are not worth loading what the better ways need.
  constexpr uint32_t kFew = 8;
  const auto *record = static_cast<const uint8_t *>(records);
  for (bool is_full = count <= kFew; is_full && count > 0; --count, words += kWord, record += type.record_size) {
    uint8_t *const start = end;
    store(words, static_cast<uint32_t>(start + type.vtable_length - words));
    end = type.build_table(start, record);
    is_full = end - start == type.full_size;
  }
#ifdef DRIX_HAS_MASKS
  if (type.masks != nullptr && element_way() == ElementWay::masks)
    return write_by_masks(type, words, count, record, end);
#endif
#ifdef DRIX_HAS_SHUFFLES
  if (type.write_by_shuffles != nullptr && element_way() >= ElementWay::shuffles) {
    return type.write_by_shuffles(type, words, count, record, end);
  }
#endif
  return write_each(type, words, count, record, end);
}

uint32_t read_elements(const ElementType &type, const uint8_t *buffer, uint32_t length, uint32_t words, uint32_t count,
                       void *records) {
  uint32_t done = read_together(type, buffer, length, words, count, records);
  auto *record = static_cast<uint8_t *>(records) + std::size_t{done} * type.record_size;
  for (; done < count; ++done, record += type.record_size) {
    const uint64_t word = uint64_t{words} + uint64_t{kWord} * done;
    const uint64_t position = word + load_once<uint32_t>(buffer + word);
    if (position > length || !type.read_table(buffer, length, static_cast<uint32_t>(position), record)) break;
  }
  return done;
}

uint64_t zero_bytes(const ElementType &type, const void *records, uint32_t count) {
  const auto *record = static_cast<const uint8_t *>(records);
  const uint32_t last = std::min<uint32_t>(count, type.last_read);
  uint64_t sum = 0;
  for (uint32_t i = 0; i < type.window_count; ++i) {
    sum += zero_bytes_in_window(type.windows[i], record, type.record_size, count - last);
  }
  for (uint32_t i = count - last; i < count; ++i) {
    uint8_t half[kHalf] = {};
    std::memcpy(half, record + i * type.record_size, type.record_size);
    sum += zero_bytes_in_window(type.windows[0], half, 0, 1);
  }
  return sum;
}

}  // namespace drix
