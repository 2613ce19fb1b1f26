// Encoding: the compact layout with its size function, and the fixed layout. One forward pass, no allocation.
//
// The code that is made for each type writes tables; what surrounds them is the same for all and stands in encode.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "runtime/elements.h"
#include "runtime/image.h"
#include "runtime/image_runs.h"
#include "runtime/message.h"
#include "runtime/slots.h"
#include "runtime/wire.h"
#include "runtime/zeros.h"

namespace drix {

// Whether a slot has an offset word in the compact layout of this record.
template <class S, class R>
bool has_offset_word(const R &record) {
  if constexpr (S::kind == Kind::scalar) return false;
  if constexpr (S::kind == Kind::bytes) return S::value(record) != nullptr && S::length(record) != 0;
  if constexpr (S::kind == Kind::vector) return S::value(record) != nullptr && S::count(record) != 0;
  return S::kind == Kind::array || S::kind == Kind::table;
}

// Encoded length of a table without a root offset, when it holds nothing that can be left out.
template <class R>
constexpr uint64_t least_nested_size() {
  uint64_t size = vtable_length(kSlots<R>) + kWord;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::array) size += kOffsetAndCount + sizeof(typename S::Type);
    if constexpr (S::kind == Kind::table) size += kWord + least_nested_size<typename S::Type>();
  });
  return size;
}

// Encoded length of a table in the compact layout without a root offset. Sums stay far below 2^64. A vector whose count
// alone makes the encoding too long, root offset included, ends the sum before any element is read.
template <class R>
uint64_t nested_size(const R &record) {
  constexpr uint64_t kLongest = UINT32_MAX - kWord;
  uint64_t size = least_nested_size<R>();
  for_each_slot<R>([&]<class S>(S) {
    const auto &value = S::value(record);
    if constexpr (S::kind == Kind::scalar) {
      size += value != 0 ? sizeof value : 0;
    } else if constexpr (S::kind == Kind::table) {
      size += nested_size(value) - least_nested_size<typename S::Type>();
    } else if constexpr (S::kind == Kind::bytes) {
      if (has_offset_word<S>(record)) size += kOffsetAndCount + uint64_t{S::length(record)};
    } else if constexpr (S::kind == Kind::vector) {
      using Element = typename S::Element;
      constexpr uint64_t kLeast = least_nested_size<Element>();
      if (!has_offset_word<S>(record)) return;
      const uint32_t count = S::count(record);
      size += kOffsetAndCount + count * (kWord + kLeast);
      if (size > kLongest) return;
      size += count * (full_size<Element>() - kLeast) - zero_bytes(kElementType<Element>, value, count);
    }
  });
  return size;
}

// A length that the encoding of a record with a root offset does not exceed; it is found without a look at the scalars.
template <class R>
uint64_t longest_size(const R &record) {
  uint64_t size = kWord + vtable_length(kSlots<R>) + kWord;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::scalar) {
      size += sizeof(typename S::Type);
    } else if constexpr (S::kind == Kind::array) {
      size += kOffsetAndCount + sizeof(typename S::Type);
    } else if constexpr (S::kind == Kind::table) {
      size += longest_size(S::value(record));
    } else if constexpr (S::kind == Kind::bytes) {
      size += kOffsetAndCount + uint64_t{S::length(record)};
    } else {
      size += kOffsetAndCount + S::count(record) * uint64_t{kWord + full_size<typename S::Element>()};
    }
  });
  return size;
}

// Writes a table of the compact layout: its vtable, then its scalars, offset words and contents, then the tables that
// it holds. What is known only later is written last: the header of the vtable and the table's distance to it.
template <class R>
class TableWriter {
 public:
  TableWriter(uint8_t *vtable, const R &record)
      : record_(record), vtable_(vtable), table_(vtable + kVtableLength), end_(table_ + kWord) {}

  // Returns the end of all that was written.
  [[gnu::always_inline]] uint8_t *write() {
    write_scalars();
    reserve_offset_words();
    write_contents();
    const auto table_size = static_cast<uint16_t>(end_ - table_);
    write_embedded_tables();
    write_vectors();
    store(vtable_, static_cast<uint16_t>(kVtableLength));
    store(vtable_ + 2, table_size);
    store(table_, kVtableLength);
    return end_;
  }

 private:
  static constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);

  void set_entry(std::size_t slot, uint32_t offset) {
    store(vtable_ + kVtableHeader + 2 * slot, static_cast<uint16_t>(offset));
  }

  static void point_at(uint8_t *word, const uint8_t *target) { store(word, static_cast<uint32_t>(target - word)); }

  // Without a branch: a zero falls on the table's distance word.
  [[gnu::always_inline]] void write_scalars() {
    uint32_t inline_size = kWord;
    for_each_slot<R>([&]<class S>(S) {
      if constexpr (S::kind == Kind::scalar) {
        const auto value = S::value(record_);
        const uint32_t present = value != 0 ? UINT32_MAX : 0;
        const uint32_t offset = inline_size & present;
        set_entry(S::index, offset);
        store(table_ + offset, value);
        inline_size += sizeof value & present;
      }
    });
    end_ = table_ + inline_size;
  }

  [[gnu::always_inline]] void reserve_offset_words() {
    for_each_slot<R>([&]<class S>(S) {
      if constexpr (S::kind != Kind::scalar) {
        const bool present = has_offset_word<S>(record_);
        words_[S::index] = end_;
        set_entry(S::index, present ? static_cast<uint32_t>(end_ - table_) : 0);
        end_ += present ? kWord : 0;
      }
    });
  }

  // Of arrays and byte strings; of vectors, count and room for the elements' offset words.
  [[gnu::always_inline]] void write_contents() {
    for_each_slot<R>([&]<class S>(S) {
      const auto &value = S::value(record_);
      if constexpr (S::kind == Kind::array) {
        point_at(words_[S::index], end_);
        store(end_, static_cast<uint32_t>(S::elements));
        copy_elements<typename S::Element>(end_ + kWord, value, S::elements);
        end_ += kWord + sizeof value;
      } else if constexpr (S::kind == Kind::bytes) {
        if (!has_offset_word<S>(record_)) return;
        point_at(words_[S::index], end_);
        store(end_, S::length(record_));
        std::memcpy(end_ + kWord, value, S::length(record_));
        end_ += kWord + S::length(record_);
      } else if constexpr (S::kind == Kind::vector) {
        if (!has_offset_word<S>(record_)) return;
        point_at(words_[S::index], end_);
        store(end_, S::count(record_));
        element_words_[S::index] = end_ + kWord;
        end_ += kWord + kWord * static_cast<std::size_t>(S::count(record_));
      }
    });
  }

  // Writes the table of T behind all that stands and has an offset word point at it.
  template <class T>
  [[gnu::always_inline]] void append_table(uint8_t *word, const T &record) {
    point_at(word, end_ + vtable_length(kSlots<T>));
    end_ = build_table<T>(end_, &record);
  }

  [[gnu::always_inline]] void write_embedded_tables() {
    for_each_slot<R>([&]<class S>(S) {
      if constexpr (S::kind == Kind::table) append_table(words_[S::index], S::value(record_));
    });
  }

  [[gnu::always_inline]] void write_vectors() {
    for_each_slot<R>([&]<class S>(S) {
      if constexpr (S::kind == Kind::vector) {
        if (!has_offset_word<S>(record_)) return;
        const uint32_t count = S::count(record_);
        constexpr const ElementType &kType = kElementType<typename S::Element>;
        end_ = write_elements(kType, element_words_[S::index], count, S::value(record_), end_);
      }
    });
  }

  const R &record_;
  uint8_t *const vtable_;
  uint8_t *const table_;
  uint8_t *end_;
  std::array<uint8_t *, kSlots<R>> words_;          // offset words, of the slots that have one
  std::array<uint8_t *, kSlots<R>> element_words_;  // of vectors, where their elements' offset words start
};

// Writes a table in the compact layout, vtable first, and returns the end of all that was written; the table itself
// follows its vtable.
template <class R>
[[gnu::noinline]] uint8_t *build_table(uint8_t *vtable, const void *of) {
  const R &record = *static_cast<const R *>(of);
  if constexpr (kFixedLength<R>) {
    if (!Zeros<R>::any(record)) [[likely]] {
      write_image<kFullImage<R>>(vtable, &record);
      return vtable + kFullImage<R>.bytes.size();
    }
  }
  return TableWriter<R>(vtable, record).write();
}

// What the shared encoding flow needs to know of a type.
struct Encoder {
  const MessageInfo *message;
  uint32_t record_size;
  uint32_t vtable_length;
  uint8_t *(*build_table)(uint8_t *vtable, const void *record);

  // Of fixed-length types, else 0 and null.
  uint32_t fixed_length;
  uint32_t longest_compact;  // encoded length when all scalars are non-zero
  void (*build_fixed)(uint8_t *buffer, const void *record);

  // Of variable-length types, else null.
  uint64_t (*nested_size)(const void *record);
  uint64_t (*longest_size)(const void *record);
};

// Encoded length of a record of a variable-length type in the compact layout; 0 when it does not fit in 32 bits.
uint32_t compact_size(const Encoder &encoder, const void *record);

// Writes a record in the compact layout into a buffer that has room for it at its longest, without binding the services;
// returns the number of bytes written.
uint32_t build_unbound(const Encoder &encoder, uint8_t *buffer, const void *record);

// Writes a record in the compact layout into a buffer that is large enough. Returns the number of bytes written, 0 on
// bad parameters.
uint32_t build(const Encoder &encoder, uint8_t *buffer, uint32_t capacity, const void *record);

// Writes the fixed layout of a record, zeros where the layout leaves bytes unwritten.
void build_fixed(const Encoder &encoder, uint8_t *buffer, const void *record);

// The encoder that a package exports, see X__pack in drix_message.h.
int32_t pack(const Encoder &encoder, const void *record, uint8_t *buffer, uint32_t *length);

inline constexpr uint32_t kMaxFixedLength = 536;

template <class R>
constexpr Encoder make_encoder() {
  Encoder encoder = {};
  encoder.message = &kMessage<R>;
  encoder.record_size = sizeof(R);
  encoder.vtable_length = vtable_length(kSlots<R>);
  encoder.build_table = build_table<R>;
  if constexpr (kFixedLength<R>) {
    encoder.fixed_length = fixed_length<R>();
    encoder.longest_compact = kWord + full_size<R>();
    static_assert(fixed_length<R>() <= kMaxFixedLength && kWord + full_size<R>() <= kMaxFixedLength,
                  "single records are encoded on the stack");
    encoder.build_fixed = [](uint8_t *buffer, const void *record) { write_image<kSentImage<R>>(buffer, record); };
  } else {
    encoder.nested_size = [](const void *record) { return nested_size(*static_cast<const R *>(record)); };
    encoder.longest_size = [](const void *record) { return longest_size(*static_cast<const R *>(record)); };
  }
  return encoder;
}

template <class R>
inline constexpr Encoder kEncoder = make_encoder<R>();

}  // namespace drix
