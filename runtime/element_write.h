// Writing a vector's elements.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "runtime/image.h"
#include "runtime/image_runs.h"
#include "runtime/slots.h"
#include "runtime/wire.h"
#include "runtime/zeros.h"

namespace drix {

// Writes one table, see encode.h.
template <class R>
uint8_t *build_table(uint8_t *vtable, const void *of);

// The elements of a real table mostly have the shape of the one before: the same scalars zero, so that the others stand
// at the same places. Then its vtable is copied, and the scalars go where that says. Where shapes change all the time,
// most elements are not even compared.
template <class R>
class ElementWriter {
 public:
  [[gnu::always_inline]] uint8_t *write(uint8_t *words, uint32_t count, const R *records, uint8_t *end) {
    uint32_t alone = 0;  // elements to write without a look at their shape
    bool met = true;     // whether the last look found the shape of the element before
    for (uint32_t i = 0; i < count; ++i, words += kWord) {
      store(words, static_cast<uint32_t>(end + kVtableLength - words));
      uint8_t *const vtable = end;
      if (alone != 0) {
        --alone;
        end = build_table<R>(vtable, &records[i]);
        continue;
      }
      const typename Zeros<R>::Shape shape(records[i]);
      if (!shape.any()) {
        write_image<kFullImage<R>>(vtable, &records[i]);
        end = vtable + kFullImage<R>.bytes.size();
      } else if (shape.equals(shape_)) [[likely]] {
        if (last_ != nullptr) std::memcpy(vtable_, last_, kVtableLength);
        last_ = nullptr;
        met = true;
        end = write_alike(vtable, records[i]);
      } else {
        end = build_table<R>(vtable, &records[i]);
        if (!met) alone = kAlone;
        met = !met;
        last_ = vtable;
        shape_ = shape;
      }
    }
    return end;
  }

 private:
  static constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  static constexpr uint32_t kAlone = 32;

  [[gnu::always_inline]] uint8_t *write_alike(uint8_t *vtable, const R &record) {
    settle_in_memory(vtable_);
    std::memcpy(vtable, vtable_, kVtableLength);
    uint8_t *const table = vtable + kVtableLength;
    uint8_t *const end = table + load<uint16_t>(vtable_ + 2);
    for_each_slot<R>([&]<class S>(S) {
      const auto &value = S::value(record);
      if constexpr (S::kind == Kind::scalar) {
        store(table + load<uint16_t>(vtable_ + kVtableHeader + 2 * S::index), value);  // a zero, onto the distance word
      } else {
        constexpr ArrayWords kArray = words_of_array(S::index);
        store(end - kArray.word, static_cast<uint32_t>(kArray.word - kArray.count));
        store(end - kArray.count, static_cast<uint32_t>(S::elements));
        copy_elements<typename S::Element>(end - kArray.count + kWord, value, S::elements);
      }
    });
    store(table, kVtableLength);
    return end;
  }

  // Where an array's words stand, counted back from the table's end.
  struct ArrayWords {
    std::size_t word = 0;
    std::size_t count = 0;
  };
  static constexpr ArrayWords words_of_array(std::size_t slot) {
    ArrayWords array;
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::array) {
        array.word += kWord + sizeof(typename S::Type) + (S::index < slot ? 0 : kWord);
        array.count += S::index < slot ? 0 : kWord + sizeof(typename S::Type);
      }
    });
    return array;
  }

  typename Zeros<R>::Shape shape_;      // of the element before, if that has zeros
  const uint8_t *last_ = nullptr;       // its vtable, until that is copied
  uint8_t vtable_[kVtableLength] = {};  // the copy
};

// Writes a vector's elements from end on, and their places into the offset words; returns the end of all that was
// written.
template <class R>
[[gnu::noinline]] uint8_t *build_elements(uint8_t *words, uint32_t count, const R *records, uint8_t *end) {
  return ElementWriter<R>().write(words, count, records, end);
}

}  // namespace drix
