// What a vector's element type looks like to the code that handles the elements of all types, as tables.
//
// The shape of an element is which of its scalars are zero. It decides about every byte of the element's table that is
// not a value: what the vtable says, and how far each scalar moves up.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/image.h"
#include "runtime/quick_read.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

struct ElementType;

// Each element by itself. Writes a vector's elements from end on, and their places into the offset words; returns the
// end of all that was written.
uint8_t *write_each(const ElementType &type, uint8_t *words, uint32_t count, const void *records, uint8_t *end);

// Writes one table, see encode.h.
template <class R>
uint8_t *build_table(uint8_t *vtable, const void *of);

inline constexpr std::size_t kHalf = 8;            // bytes of a record that are looked at together
inline constexpr std::size_t kWindow = 2 * kHalf;  // of two places, side by side
inline constexpr std::size_t kMostWindows = 3;
inline constexpr std::size_t kMostHeads = 3;  // windows of the vtable
inline constexpr std::size_t kMostScalars = 16;
inline constexpr uint8_t kNothing = 0x80;  // for a byte shuffle: gives zero

using WindowBytes = std::array<uint8_t, kWindow>;
using WindowLanes = std::array<uint16_t, kWindow / 2>;

inline constexpr std::size_t kMaskBytes = 64;   // of a record, for which a mask has a bit each
inline constexpr std::size_t kMaskedHead = 32;  // of a vtable

// Of a type whose records and vtables are short enough. Scalars are numbered in the order of their slots.
struct alignas(kWindow) ElementMasks {
  std::array<uint8_t, kMaskBytes> rest;  // of the scalars, all bits but the top one
  std::array<uint8_t, kMaskBytes> top;   // of each byte of the record: where in 16 bytes the top bit of its scalar is
  std::array<uint8_t, kMaskBytes> entries;        // of each byte: where the entry of its scalar is in the vtable
  std::array<uint8_t, kMaskBytes> tail;           // what stands behind the scalars, but for the arrays
  std::array<uint8_t, kMaskBytes> tail_sources;   // of each byte of an array there: where it is in the record
  std::array<uint8_t, kMaskBytes> array_sources;  // of each byte of an array in the record: where it is there
  std::array<uint8_t, kMaskedHead> numbers;       // of each scalar's entry: its number
  std::array<uint16_t, kMaskedHead / 2> fixed;    // of the other entries: what they are when all scalars are zero
  WindowBytes tops;                               // of each number: where the top bit of that scalar is in the record
  WindowBytes entries_of_numbers;                 // of each number: where its entry is
  WindowBytes widths;                             // of each number: of the scalar
  uint64_t record_bytes;
  uint64_t scalar_bytes;
  uint64_t array_bytes;
  uint64_t tail_bytes;
  uint64_t arrays_in_tail;
  uint32_t scalar_entries;  // bytes of the vtable
  uint16_t moving;          // entries to which the bytes of all scalars add
  uint16_t entries_used;
  uint16_t numbers_used;
  uint16_t tail_size;
  uint16_t last_elements;  // from whose tables less than a mask's bytes may be left
};

// Scalars are numbered in the order of their slots.
struct ElementType {
  // Two places of the record that hold no scalar in part. All together hold every byte but those of arrays; where two
  // overlap, a scalar belongs to the later one.
  struct alignas(kWindow) Window {
    WindowBytes rest;    // of the scalars, all bits but the top one
    WindowBytes widths;  // of each scalar, where its top bit is
    std::array<uint16_t, 2> places;
  };

  // For byte shuffles.
  struct alignas(kWindow) Shuffle {
    WindowBytes top;      // of each byte of the window: where the top bit of its scalar is
    WindowBytes numbers;  // of each byte: the number of its scalar
    WindowBytes tops;     // of each number: where the top bit of that scalar is in the window
  };

  // Eight entries of the vtable, of which its header is two.
  struct alignas(kWindow) Head {
    WindowBytes numbers;  // of each scalar's entry: its number
    WindowBytes entries;  // of each number: where the entry is
    WindowLanes fixed;    // of the other entries: what they are when all scalars are zero
    WindowLanes moving;   // and where the bytes of the other scalars add to that
  };

  // Counted from the end of a table's scalars.
  struct Array {
    uint16_t source;  // in the record
    uint16_t size;    // bytes
    uint32_t elements;
    uint32_t distance;  // from the offset word to the count
    uint16_t word;      // where that is
    uint16_t count;     // and that, with the elements behind it
  };

  uint8_t *(*build_table)(uint8_t *vtable, const void *record);
  bool (*read_table)(const uint8_t *buffer, uint32_t length, uint32_t position, void *record);
  const Window *windows;
  const ElementMasks *masks;  // or null
  uint8_t *(*write_by_shuffles)(const ElementType &type, uint8_t *words, uint32_t count, const void *records,
                                uint8_t *end);  // or null
  uint32_t (*read_by_shuffles)(const ElementType &type, const uint8_t *buffer, uint32_t length, uint32_t words,
                               uint32_t count, void *records);  // or null
  const Shuffle *shuffles;
  const Head *heads;
  const Array *arrays;
  WindowBytes widths;  // of the scalars
  WindowBytes behind;  // 0xFF in the last head behind the vtable's end
  uint16_t record_size;
  uint16_t full_size;  // of a table without zeros, with its vtable
  uint16_t tail_size;  // bytes of a table behind its scalars
  uint8_t window_count;
  uint8_t array_count;
  uint8_t last_written;  // elements from whose tables less than windows write may be left
  uint8_t last_read;     // from whose records less than a half may be left
  uint8_t vtable_length;
};

// Whether an element is taken to have the shape of the one before while its own is still being found. The first one is
// not, the second one is; where shapes change, it takes a few elements alike.
class SameShape {
 public:
  bool expected() const { return credit_ - kEnough < kEnough; }
  bool as_before(uint64_t shape) const { return shape == last_; }

  // Without a branch, which would be mispredicted where shapes come in any order.
  void met(uint64_t shape) {
    const uint32_t same = in_register(uint32_t{as_before(shape)});
    credit_ = std::min((credit_ >> (1 - same)) + same, 2 * kEnough - 1);
    last_ = shape;
  }

 private:
  static constexpr uint32_t kEnough = 4;
  static constexpr uint32_t kFirst = 4 * kEnough;

  uint64_t last_ = UINT64_MAX;  // which no shape is: there are more bits than bytes
  uint32_t credit_ = kFirst;
};

template <class R>
class ElementTables {
 public:
  static constexpr std::size_t kVtable = vtable_length(kSlots<R>);

 private:
  static constexpr std::array<bool, sizeof(R)> of_arrays = [] {
    std::array<bool, sizeof(R)> bytes{};
    for_each_slot<R>([&]<class S>(S) constexpr {
      for (std::size_t i = 0; S::kind == Kind::array && i < sizeof(typename S::Type); ++i) bytes[S::offset + i] = true;
    });
    return bytes;
  }();

  // Places begin at multiples of a word, so that no scalar lies across the end of one.
  template <class Visit>
  static constexpr void for_each_place(Visit visit) {
    for (std::size_t at = 0; at < sizeof(R);) {
      if (of_arrays[at]) {
        ++at;
        continue;
      }
      std::size_t place = at / kWord * kWord;
      if (sizeof(R) >= kHalf && place > sizeof(R) - kHalf) place = sizeof(R) - kHalf;
      visit(place);
      at = place + kHalf;
    }
  }

  static constexpr std::size_t kPlaces = [] {
    std::size_t count = 0;
    for_each_place([&](std::size_t) { ++count; });
    return count;
  }();

 public:
  static constexpr std::size_t kWindows = (kPlaces + 1) / 2;
  static constexpr std::size_t kHeads = (kVtable + kWindow - 1) / kWindow;

  struct Counts {
    std::size_t scalars = 0;
    std::size_t scalar_bytes = 0;
    std::size_t arrays = 0;
    std::size_t tail = 0;
  };
  static constexpr Counts kCounts = [] {
    Counts counts;
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::scalar) {
        ++counts.scalars;
        counts.scalar_bytes += sizeof(typename S::Type);
      } else {
        ++counts.arrays;
        counts.tail += kOffsetAndCount + sizeof(typename S::Type);
      }
    });
    return counts;
  }();

  static constexpr bool kShuffles =
      kWindows > 0 && kWindows <= kMostWindows &&kHeads <= kMostHeads &&kCounts.scalars <= kMostScalars;

  // Of an odd number the last one stands on both sides, its scalars on the second: that is stored last.
  static constexpr std::array<uint16_t, 2 *kWindows> places = [] {
    std::array<uint16_t, 2 * kWindows> list{};
    std::size_t found = 0;
    for_each_place([&](std::size_t place) { list[found++] = static_cast<uint16_t>(place); });
    if (kPlaces % 2 != 0) list[kPlaces] = list[kPlaces - 1];
    return list;
  }();

  // Calls visit(number, byte, width) for each scalar; its first byte is that one of all windows'.
  template <class Visit>
  static constexpr void for_each_scalar(Visit visit) {
    std::size_t number = 0;
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::scalar) {
        std::size_t side = places.size() - 1;
        while (S::offset < places[side]) --side;
        visit(number++, side * kHalf + S::offset - places[side], sizeof(typename S::Type));
      }
    });
  }

  static constexpr std::size_t top_byte(std::size_t width) { return kHostIsLittleEndian ? width - 1 : 0; }

  static constexpr std::array<ElementType::Window, kWindows> windows = [] {
    std::array<ElementType::Window, kWindows> list{};
    for (std::size_t i = 0; i < places.size(); ++i) list[i / 2].places[i % 2] = places[i];
    for_each_scalar([&](std::size_t, std::size_t at, std::size_t width) {
      ElementType::Window &window = list[at / kWindow];
      const std::size_t first = at % kWindow;
      const std::size_t top = first + top_byte(width);
      for (std::size_t i = 0; i < width; ++i) window.rest[first + i] = 0xFF;
      window.rest[top] = 0x7F;
      window.widths[top] = static_cast<uint8_t>(width);
    });
    return list;
  }();

  static constexpr std::array<ElementType::Shuffle, kShuffles ? kWindows : 0> shuffles = [] {
    std::array<ElementType::Shuffle, kShuffles ? kWindows : 0> list{};
    for (ElementType::Shuffle &shuffle : list) {
      for (WindowBytes *bytes : {&shuffle.top, &shuffle.numbers, &shuffle.tops}) bytes->fill(kNothing);
    }
    if (!kShuffles) return list;
    for_each_scalar([&](std::size_t number, std::size_t at, std::size_t width) {
      ElementType::Shuffle &shuffle = list[at / kWindow];
      const std::size_t first = at % kWindow;
      const auto top = static_cast<uint8_t>(first + top_byte(width));
      for (std::size_t i = 0; i < width; ++i) {
        shuffle.top[first + i] = top;
        shuffle.numbers[first + i] = static_cast<uint8_t>(number);
      }
      shuffle.tops[number] = top;
    });
    return list;
  }();

  static constexpr std::array<ElementType::Head, kShuffles ? kHeads : 0> heads = [] {
    std::array<ElementType::Head, kShuffles ? kHeads : 0> list{};
    if (!kShuffles) return list;
    for (ElementType::Head &head : list) {
      head.numbers.fill(kNothing);
      head.entries.fill(kNothing);
    }
    const auto set = [&](std::size_t entry, std::size_t fixed, bool moves) {
      ElementType::Head &head = list[entry / 8];
      head.fixed[entry % 8] = static_cast<uint16_t>(fixed);
      if (moves) head.moving[entry % 8] = 0xFFFF;
    };
    set(0, kVtable, false);
    set(1, kWord + kCounts.tail, true);
    std::size_t number = 0;
    std::size_t word = kWord;
    for_each_slot<R>([&]<class S>(S) constexpr {
      constexpr std::size_t kEntry = S::index + kVtableHeader / 2;
      if constexpr (S::kind == Kind::scalar) {
        ElementType::Head &head = list[kEntry / 8];
        head.numbers[kEntry % 8 * 2] = static_cast<uint8_t>(number);
        head.entries[number++] = kEntry % 8 * 2;
      } else {
        set(kEntry, word, true);
        word += kWord;
      }
    });
    return list;
  }();

  static constexpr std::array<ElementType::Array, kCounts.arrays> arrays = [] {
    std::array<ElementType::Array, kCounts.arrays> list{};
    std::size_t found = 0;
    std::size_t at = kWord * kCounts.arrays;
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::array) {
        constexpr std::size_t kSize = sizeof(typename S::Type);
        const std::size_t word = kWord * found;
        list[found++] = {static_cast<uint16_t>(S::offset),
                         kSize,
                         S::elements,
                         static_cast<uint32_t>(at - word),
                         static_cast<uint16_t>(word),
                         static_cast<uint16_t>(at)};
        at += kWord + kSize;
      }
    });
    return list;
  }();

  // Bytes of a table whose scalars are all zero, with its vtable.
  static constexpr std::size_t kLeast = kVtable + kWord + kCounts.tail;

  static constexpr bool kMasks = sizeof(R) <= kMaskBytes && kCounts.tail <= kMaskBytes &&
                                 kCounts.scalar_bytes < kMaskBytes && kVtable <= kMaskedHead &&
                                 kCounts.scalars <= kMostScalars && kHostIsLittleEndian;

  static constexpr uint64_t first_bytes(std::size_t count) {
    return count == 0 ? 0 : UINT64_MAX >> (kMaskBytes - count);
  }

  static constexpr ElementMasks masks = [] {
    ElementMasks made{};
    if (!kMasks) return made;
    made.tail_size = kCounts.tail;
    made.last_elements = (kMaskBytes - kCounts.tail + kLeast - 1) / kLeast;
    made.tail_bytes = first_bytes(kCounts.tail);
    std::size_t contents = kWord * kCounts.arrays;
    const auto put = [&](std::size_t at, std::size_t value) { made.tail[at] = static_cast<uint8_t>(value); };
    const auto set = [&](std::size_t entry, std::size_t fixed, bool moves) {
      made.fixed[entry] = static_cast<uint16_t>(fixed);
      made.moving = static_cast<uint16_t>(made.moving | (moves ? 1 << entry : 0));
    };
    made.top.fill(kNothing);
    made.record_bytes = first_bytes(sizeof(R));
    made.entries_used = static_cast<uint16_t>(0xFFFF >> (kMaskedHead - kVtable) / 2);
    made.numbers_used = static_cast<uint16_t>((1 << kCounts.scalars) - 1);
    set(0, kVtable, false);
    set(1, kWord + kCounts.tail, true);
    std::size_t number = 0;
    std::size_t word = kWord;
    for_each_slot<R>([&]<class S>(S) constexpr {
      constexpr std::size_t kEntry = S::index + kVtableHeader / 2;
      if constexpr (S::kind == Kind::scalar) {
        constexpr std::size_t kWidth = sizeof(typename S::Type);
        constexpr std::size_t kTop = S::offset + kWidth - 1;
        for (std::size_t i = S::offset; i <= kTop; ++i) {
          made.rest[i] = i < kTop ? 0xFF : 0x7F;
          made.top[i] = kTop % kWindow;
          made.entries[i] = 2 * kEntry;
          made.scalar_bytes |= uint64_t{1} << i;
        }
        made.numbers[2 * kEntry] = static_cast<uint8_t>(number);
        made.scalar_entries |= uint32_t{1} << 2 * kEntry;
        made.tops[number] = kTop;
        made.entries_of_numbers[number] = 2 * kEntry;
        made.widths[number++] = kWidth;
      } else {
        set(kEntry, word, true);
        put(word - kWord, contents - (word - kWord));
        put(contents, S::elements);
        contents += kWord;
        for (std::size_t i = 0; i < sizeof(typename S::Type); ++i, ++contents) {
          made.tail_sources[contents] = static_cast<uint8_t>(S::offset + i);
          made.array_sources[S::offset + i] = static_cast<uint8_t>(contents);
          made.arrays_in_tail |= uint64_t{1} << contents;
          made.array_bytes |= uint64_t{1} << (S::offset + i);
        }
        word += kWord;
      }
    });
    return made;
  }();

  alignas(kWindow) static constexpr WindowBytes widths = [] {
    WindowBytes bytes{};
    for_each_scalar([&](std::size_t number, std::size_t, std::size_t width) {
      if (number < bytes.size()) bytes[number] = static_cast<uint8_t>(width);
    });
    return bytes;
  }();

  // 0xFF in the last head behind the vtable's end.
  alignas(kWindow) static constexpr WindowBytes behind = [] {
    WindowBytes bytes{};
    for (std::size_t i = 0; i < kWindow; ++i) bytes[i] = (kHeads - 1) * kWindow + i < kVtable ? 0 : 0xFF;
    return bytes;
  }();

  // Of the last records of an array, those from whose start less than a half is left.
  static constexpr uint8_t last_read() {
    return sizeof(R) >= kHalf ? 0 : static_cast<uint8_t>((kHalf - 1) / sizeof(R));
  }

  // Of the last tables, those behind whose start there is less than what windows write.
  static constexpr uint8_t last_written() {
    constexpr std::size_t kMost = std::max(kHeads * kWindow, kVtable + kWord + kWindow);
    return std::max(last_read(), static_cast<uint8_t>((kMost - 1) / kLeast));
  }
};

}  // namespace drix
