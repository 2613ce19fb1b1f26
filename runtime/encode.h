// Encoding: the compact layout with its size function, and the fixed layout. One forward pass, no allocation.
//
// The code that is made for each type writes tables; what surrounds them is the same for all and stands in encode.cpp.
#pragma once

#include <array>
#include <cstdint>
#include <cstring>

#include "runtime/image.h"
#include "runtime/image_runs.h"
#include "runtime/message.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// Whether a slot has an offset word in the compact layout of this record.
template <class S, class R>
bool has_offset_word(const R &record) {
  if constexpr (S::kind == Kind::scalar) return false;
  if constexpr (S::kind == Kind::bytes) return S::value(record) != nullptr && S::length(record) != 0;
  if constexpr (S::kind == Kind::vector) return S::value(record) != nullptr && S::count(record) != 0;
  return S::kind == Kind::array || S::kind == Kind::table;
}

template <class R>
[[gnu::always_inline]] inline bool every_scalar_is_set(const R &record) {
  return all_slots<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::scalar) {
      return S::value(record) != 0;
    } else if constexpr (S::kind == Kind::table) {
      return every_scalar_is_set(S::value(record));
    } else {
      return true;
    }
  });
}

// Encoded length of a table in the compact layout without a root offset. Sums stay far below 2^64, and a vector that is
// too long by its count alone ends its sum before any element is read.
template <class R>
uint64_t nested_size(const R &record) {
  constexpr uint64_t kTooLong = uint64_t{1} << 32;
  uint64_t size = vtable_length(kSlots<R>) + kWord;
  for_each_slot<R>([&]<class S>(S) {
    const auto &value = S::value(record);
    if constexpr (S::kind == Kind::scalar) {
      size += value != 0 ? sizeof value : 0;
    } else if constexpr (S::kind == Kind::array) {
      size += kOffsetAndCount + sizeof value;
    } else if constexpr (S::kind == Kind::table) {
      size += kWord + nested_size(value);
    } else if constexpr (S::kind == Kind::bytes) {
      if (has_offset_word<S>(record)) size += kOffsetAndCount + uint64_t{S::length(record)};
    } else if (has_offset_word<S>(record)) {
      const uint64_t count = S::count(record);
      size += kOffsetAndCount + kWord * count;
      for (uint64_t i = 0; i < count && size < kTooLong; ++i) size += nested_size(value[i]);
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

// Writes a table in the compact layout, vtable first, and returns the end of all that was written; the table itself
// follows its vtable.
template <class R>
[[gnu::noinline]] uint8_t *build_table(uint8_t *vtable, const void *of) {
  const R &record = *static_cast<const R *>(of);
  if constexpr (kFixedLength<R>) {
    if (every_scalar_is_set(record)) {
      write_image<kFullImage<R>>(vtable, &record);
      return vtable + kFullImage<R>.bytes.size();
    }
  }
  constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  uint8_t *const table = vtable + kVtableLength;
  const auto set_entry = [=](std::size_t slot, uint32_t offset) {
    store(vtable + kVtableHeader + 2 * slot, static_cast<uint16_t>(offset));
  };

  uint32_t inline_size = kWord;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::scalar) {
      const auto value = S::value(record);
      const uint32_t present = value != 0 ? UINT32_MAX : 0;
      const uint32_t offset = inline_size & present;
      set_entry(S::index, offset);
      store(table + offset, value);  // a zero falls on the table's distance word, which is written last
      inline_size += sizeof value & present;
    }
  });

  std::array<uint8_t *, kSlots<R>> words;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind != Kind::scalar) {
      const bool present = has_offset_word<S>(record);
      words[S::index] = table + inline_size;
      set_entry(S::index, present ? inline_size : 0);
      inline_size += present ? kWord : 0;
    }
  });

  uint8_t *end = table + inline_size;
  const auto point_at = [](uint8_t *word, const uint8_t *target) { store(word, static_cast<uint32_t>(target - word)); };
  for_each_slot<R>([&]<class S>(S) {
    const auto &value = S::value(record);
    if constexpr (S::kind == Kind::array) {
      point_at(words[S::index], end);
      store(end, static_cast<uint32_t>(S::elements));
      copy_elements<typename S::Element>(end + kWord, value, S::elements);
      end += kWord + sizeof value;
    } else if constexpr (S::kind == Kind::bytes) {
      if (!has_offset_word<S>(record)) return;
      point_at(words[S::index], end);
      store(end, S::length(record));
      std::memcpy(end + kWord, value, S::length(record));
      end += kWord + S::length(record);
    } else if constexpr (S::kind == Kind::vector) {
      if (!has_offset_word<S>(record)) return;
      point_at(words[S::index], end);
      store(end, S::count(record));
      words[S::index] = end + kWord;  // from here on, the elements' offset words
      end += kWord + kWord * static_cast<std::size_t>(S::count(record));
    }
  });
  const auto table_size = static_cast<uint16_t>(end - table);

  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::table) {
      point_at(words[S::index], end + vtable_length(kSlots<typename S::Type>));
      end = build_table<typename S::Type>(end, &S::value(record));
    }
  });
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::vector) {
      if (!has_offset_word<S>(record)) return;
      const uint32_t count = S::count(record);
      const auto *elements = S::value(record);
      uint8_t *word = words[S::index];
      for (uint32_t i = 0; i < count; ++i, word += kWord) {
        point_at(word, end + vtable_length(kSlots<typename S::Element>));
        end = build_table<typename S::Element>(end, &elements[i]);
      }
    }
  });

  store(vtable, static_cast<uint16_t>(kVtableLength));
  store(vtable + 2, table_size);
  store(table, kVtableLength);
  return end;
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

// Writes a record in the compact layout into a buffer that is large enough. Returns the number of bytes written, 0 on
// bad parameters.
uint32_t build(const Encoder &encoder, uint8_t *buffer, uint32_t capacity, const void *record);

// Writes exactly the fixed layout of a record; bytes that the layout leaves unwritten stay as they are.
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
    encoder.build_fixed = [](uint8_t *buffer, const void *record) { write_image<kFixedImage<R>>(buffer, record); };
  } else {
    encoder.nested_size = [](const void *record) { return nested_size(*static_cast<const R *>(record)); };
    encoder.longest_size = [](const void *record) { return longest_size(*static_cast<const R *>(record)); };
  }
  return encoder;
}

template <class R>
inline constexpr Encoder kEncoder = make_encoder<R>();

}  // namespace drix
