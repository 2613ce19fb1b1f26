// Encoding: the compact layout with its size function, and the fixed layout. One forward pass, no allocation.
#pragma once

#include <array>
#include <cstdint>

#include "runtime/image.h"
#include "runtime/message.h"
#include "runtime/reject.h"
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
bool every_scalar_is_set(const R &record) {
  bool set = true;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::scalar) set &= S::value(record) != 0;
    if constexpr (S::kind == Kind::table) set &= every_scalar_is_set(S::value(record));
  });
  return set;
}

// Encoded length of a table in the compact layout without a root offset. Sums stay below 2^64: a vector's own bytes are
// limited by memory, and a count that no memory could hold ends the sum before its elements are read.
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

// Encoded length of a record in the compact layout; 0 when it is null or the length does not fit in 32 bits.
template <class R>
uint32_t size(const R *record) {
  if (record == nullptr) return 0;
  const uint64_t size = kWord + nested_size(*record);
  return size > UINT32_MAX ? 0 : static_cast<uint32_t>(size);
}

// Writes a table in the compact layout, vtable first, and returns the end of all that was written; the table itself
// follows its vtable.
template <class R>
uint8_t *build_nested(uint8_t *vtable, const R &record);

template <class R>
[[gnu::noinline]] uint8_t *build_slots(uint8_t *vtable, const R &record) {
  constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  uint8_t *const table = vtable + kVtableLength;
  const auto set_entry = [=](std::size_t slot, uint32_t offset) {
    store(vtable + kVtableHeader + 2 * slot, static_cast<uint16_t>(offset));
  };

  uint32_t inline_size = kWord;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::scalar) {
      const auto value = S::value(record);
      const uint32_t offset = value != 0 ? inline_size : 0;
      set_entry(S::index, offset);
      store(table + offset, value);  // a zero falls on the table's distance word, which is written last
      inline_size += value != 0 ? static_cast<uint32_t>(sizeof value) : 0;
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
      end = build_nested(end, S::value(record));
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
        end = build_nested(end, elements[i]);
      }
    }
  });

  store(vtable, static_cast<uint16_t>(kVtableLength));
  store(vtable + 2, table_size);
  store(table, kVtableLength);
  return end;
}

template <class R>
inline uint8_t *build_nested(uint8_t *vtable, const R &record) {
  if constexpr (kFixedLength<R>) {
    if (every_scalar_is_set(record)) {
      write_image<kFullImage<R>>(vtable, &record);
      return vtable + kFullImage<R>.bytes.size();
    }
  }
  return build_slots(vtable, record);
}

// Writes a record in the compact layout into a buffer of at least size(record) bytes. Returns the number of bytes
// written, 0 on bad parameters.
template <class R>
uint32_t build(uint8_t *buffer, uint32_t capacity, const R *record) {
  Services &services = kMessage<R>.services->encoding;
  if (buffer == nullptr || record == nullptr || capacity < kWord) [[unlikely]] {
    reject_build_parameters(services, kMessage<R>.pack_name, buffer, capacity, record);
    return 0;
  }
  svc_bind_mem(services);
  const uint8_t *end = build_nested(buffer + kWord, *record);
  store(buffer, kWord + vtable_length(kSlots<R>));
  return static_cast<uint32_t>(end - buffer);
}

// Writes exactly the fixed layout of a record; bytes that the layout leaves unwritten stay as they are.
template <class R>
void build_fixed(uint8_t *buffer, const R &record) {
  static_assert(kFixedLength<R>);
  svc_bind_mem(kMessage<R>.services->encoding);
  write_image<kFixedImage<R>>(buffer, &record);
}

// The encoder that a package exports for R, see X__pack in drix_message.h.
template <class R>
int32_t pack(const R *record, uint8_t *buffer, uint32_t *length) {
  constexpr int32_t kFailure = -1;
  if (record == nullptr || length == nullptr) return kFailure;
  const uint32_t capacity = *length;
  bool measured = false;
  if constexpr (kFixedLength<R>) measured = capacity >= kWord + full_size<R>();  // no record needs more
  if (!measured) {
    const uint32_t needed = size(record);
    if (needed == 0 || capacity < needed) return kFailure;
  }
  const uint32_t written = build(buffer, capacity, record);
  if (written == 0) return kFailure;
  *length = written;
  return 0;
}

}  // namespace drix
