// The quick reader of a vector's elements.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "runtime/image.h"
#include "runtime/image_runs.h"
#include "runtime/padding.h"
#include "runtime/quick_read.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// Reads a vector's elements, as long as they are plain.
//
// The elements of a real table mostly have the shape of the one before: the same members absent, the others at the same
// places. So what was checked of that one's vtable is kept and need not be checked again where the bytes are the same.
template <class R>
class ElementReader {
 public:
  // For a buffer as read_table() takes it.
  ElementReader(const uint8_t *buffer, uint32_t length) : buffer_(buffer), length_(length) {}

  [[gnu::always_inline]] uint32_t read(uint32_t words, uint32_t count, R *records) {
    if (length_ < kFirst + kReach) return 0;
    for (uint32_t i = 0; i < count; ++i, words += kWord) {
      const uint64_t position = uint64_t{words} + load_once<uint32_t>(buffer_ + words);
      if (position - kFirst > length_ - kReach - kFirst) return i;
      const auto room = static_cast<uint32_t>(length_ - position);
      if (!read_one(buffer_ + position, room, records[i])) return i;
    }
    return count;
  }

 private:
  static constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  static constexpr uint32_t kFirst = kWord + kVtableLength;

  // Where the inline bytes of a table end that has all slots. Those of plain tables end there at the latest.
  static constexpr uint32_t kReach = [] {
    uint32_t size = kWord;
    for_each_slot<R>([&]<class S>(S) { size += S::kind == Kind::scalar ? sizeof(typename S::Type) : kWord; });
    return size;
  }();

  [[gnu::always_inline]] bool read_one(const uint8_t *start, uint32_t room, R &record) {
    const uint8_t *const vtable = start - kVtableLength;
    if (full_) {  // an image then, if it is like the last one
      if (room >= full_size<R>() - kVtableLength && matches_image<kFullImage<R>>(vtable)) {
        read_image<kFullImage<R>>(&record, vtable);
        clear_own_padding(record);
        return true;
      }
      full_ = false;
    }
    if (load<uint32_t>(start) != kVtableLength || load<uint16_t>(vtable) != kVtableLength) return false;
    Difference difference;
    difference.add<2 * kSlots<R>>(shape_, vtable + kVtableHeader);
    if (!difference.none()) {
      full_ = load<uint16_t>(vtable + 2) == full_table_size<R>();
      const Entries<R> entries(vtable + kVtableHeader);
      if (!entries.in_reach(kReach)) return false;
      entries.store_to(shape_);
    }
    settle_in_memory(shape_);
    clear_own_padding(record);
    return all_slots<R>([&]<class S>(S) { return read_slot<S>(start, room, S::value(record)); });
  }

  template <class S>
  [[gnu::always_inline]] bool read_slot(const uint8_t *start, uint32_t room, auto &value) const {
    const std::size_t at = load<uint16_t>(shape_ + 2 * S::index);
    if constexpr (S::kind == Kind::scalar) {
      value = load_if<typename S::Type>(at != 0, start + at);
      return true;
    } else {
      const uint64_t elements = uint64_t{at} + load_once<uint32_t>(start + at) + kWord;
      if (at == 0 || elements + sizeof value > room) return false;
      if (load<uint32_t>(start + elements - kWord) != S::elements) return false;
      copy_elements<typename S::Element>(value, start + elements, S::elements);
      return true;
    }
  }

  const uint8_t *buffer_;
  uint32_t length_;
  uint8_t shape_[2 * std::max(kSlots<R>, std::size_t{4})] = {};  // the slot entries of the last element, checked
  bool full_ = false;                                            // whether that seems to have all slots
};

// See InnerType in decode.h.
template <class R>
uint32_t read_elements(const uint8_t *buffer, uint32_t length, uint32_t words, uint32_t count, void *to) {
  return ElementReader<R>(buffer, length).read(words, count, static_cast<R *>(to));
}

}  // namespace drix
