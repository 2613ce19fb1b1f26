// Decoding: root tables, tables below the root, and their slots.
//
// The general path takes any buffer and reads nothing before it is checked. Ahead of it stand the images that this
// library itself writes most: one compare tells that every check would pass, and the values are copied out.
#pragma once

#include <cstdint>

#include "runtime/image.h"
#include "runtime/message.h"
#include "runtime/release.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// A table found in a buffer. Positions of its fields count from its start, and everything between there and the buffer's
// end may be read.
struct Table {
  const uint8_t *start = nullptr;
  uint32_t room = 0;           // bytes from the table's start to the end of the buffer
  const uint8_t *entries = nullptr;  // one 16-bit word per slot of the type; 0 where the vtable is too short
  const char *function;    // log name of the decoder at work
  const uint8_t *buffer;
  uint32_t length;  // of the buffer

  bool holds(uint32_t at, uint32_t count) const { return at <= room && count <= room - at; }

  // Follows an offset word to a table, whose position counts from the buffer's start and is not checked here; false when
  // the word lies outside the buffer or the addition wraps.
  [[nodiscard]] bool follow_to_table(uint32_t word, uint32_t &position) const {
    if (!holds(word, kWord)) return false;
    const uint32_t from = length - room + word;
    position = from + load<uint32_t>(start + word);
    return position >= from;
  }

  // Follows an offset word to a count, which is read, and the elements behind it; false when the word or the count lies
  // outside the buffer. Buffers are shorter than 2^31 bytes, so that includes every addition that wraps.
  [[nodiscard]] bool follow_to_count(uint32_t word, uint32_t &elements, uint32_t &count) const {
    if (!holds(word, kWord)) return false;
    const uint32_t distance = load<uint32_t>(start + word);
    if (distance > room - word || !holds(word + distance, kWord)) return false;
    count = load<uint32_t>(start + word + distance);
    elements = word + distance + kWord;
    return true;
  }
};

// What the shared decoding flow needs to know of a type.
struct Decoder {
  const MessageInfo *message;
  uint32_t record_size;
  uint32_t slots;
  bool (*unpack_slots)(const Table &table, void *record);
  void (*release)(void *record);  // null for types that own nothing
};

// Decodes the table at a position below the root into a record of zeros; false when it is rejected.
[[nodiscard]] bool unpack_non_root(const Decoder &decoder, const uint8_t *buffer, uint32_t length, void *record,
                                   uint32_t position);

// Decodes a whole buffer and returns the record's size.
uint32_t unpack_root(const Decoder &decoder, const uint8_t *buffer, uint32_t length, void *record);

// Decodes a byte string behind the offset word at a position into memory of its own.
[[nodiscard]] bool unpack_bytes(const Table &table, Services &services, uint32_t word, uint32_t &length,
                                uint8_t *&bytes);

// Opens a vector behind the offset word at a position: sets its count, finds the elements' offset words and allocates
// zeroed records for them; null for count 0.
[[nodiscard]] bool open_vector(const Table &table, Services &services, uint32_t word, uint32_t record_size,
                               uint32_t &count, void *&records, uint32_t &element_words);

template <class R>
const Decoder &decoder_of();

// Recognises a table of the compact layout whose scalars are all non-zero. Its size tells most others apart at once.
template <class R>
inline bool read_full_table(const uint8_t *buffer, uint32_t length, R &record, uint32_t position) {
  constexpr auto kSize = static_cast<uint32_t>(full_size<R>());
  constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  if (length < kSize || position < kWord + kVtableLength || position - kVtableLength > length - kSize) return false;
  const uint8_t *vtable = buffer + (position - kVtableLength);
  if (load<uint16_t>(vtable + 2) != static_cast<uint16_t>(full_table_size<R>())) return false;
  if (!matches_image<kFullImage<R>>(vtable)) return false;
  read_image<kFullImage<R>>(&record, vtable);
  return true;
}

template <class R>
[[nodiscard]] inline bool unpack_nested(const uint8_t *buffer, uint32_t length, R &record, uint32_t position) {
  if constexpr (kFixedLength<R>) {
    if (read_full_table(buffer, length, record, position)) return true;
  }
  return unpack_non_root(decoder_of<R>(), buffer, length, &record, position);
}

template <class R>
bool unpack_slots(const Table &table, void *to) {
  // The record's bytes may alias anything, these copies nothing.
  const uint8_t *const start = table.start;
  const uint8_t *const entries = table.entries;
  const uint32_t room = table.room;
  R &record = *static_cast<R *>(to);
  return all_slots<R>([&]<class S>(S) {
    auto &value = S::value(record);
    const uint32_t at = load<uint16_t>(entries + 2 * S::index);
    if (at == 0) return true;
    if constexpr (S::kind == Kind::scalar) {
      if (at + sizeof value > room) return false;
      value = load<typename S::Type>(start + at);
      return true;
    } else if constexpr (S::kind == Kind::array) {
      uint32_t elements;
      uint32_t count;
      if (!table.follow_to_count(at, elements, count)) return false;
      if (count != S::elements || !table.holds(elements, sizeof value)) return false;
      copy_elements<typename S::Element>(value, start + elements, S::elements);
      return true;
    } else if constexpr (S::kind == Kind::bytes) {
      return unpack_bytes(table, kMessage<R>.services->decoding, at, S::length(record), value);
    } else if constexpr (S::kind == Kind::table) {
      uint32_t position;
      return table.follow_to_table(at, position) && unpack_nested(table.buffer, table.length, value, position);
    } else {
      using Element = typename S::Element;
      void *records = nullptr;
      uint32_t word;
      if (!open_vector(table, kMessage<R>.services->decoding, at, sizeof(Element), S::count(record), records, word)) {
        return false;
      }
      value = static_cast<Element *>(records);
      const uint32_t count = S::count(record);
      for (uint32_t i = 0; i < count; ++i, word += kWord) {
        uint32_t position;
        if (!table.follow_to_table(word, position)) return false;
        if (!unpack_nested(table.buffer, table.length, static_cast<Element *>(records)[i], position)) return false;
      }
      return true;
    }
  });
}

template <class R>
void release_erased(void *record) {
  release_members(*static_cast<R *>(record));
}

template <class R>
const Decoder &decoder_of() {
  static constexpr Decoder decoder = {&kMessage<R>, sizeof(R), kSlots<R>, unpack_slots<R>,
                                      kFixedLength<R> ? nullptr : release_erased<R>};
  return decoder;
}

// The decoder that a package exports for R, see X__unpack in drix_message.h.
template <class R>
uint32_t unpack(const uint8_t *buffer, uint32_t length, R *record) {
  if constexpr (kFixedLength<R>) {
    constexpr uint32_t kFullRoot = kWord + vtable_length(kSlots<R>);
    if (buffer != nullptr && record != nullptr && length >= kWord && length <= INT32_MAX) [[likely]] {
      const uint32_t root = load<uint32_t>(buffer);
      if (root == kWord && length >= kReadSize<kFixedImage<R>> && matches_image<kFixedImage<R>>(buffer)) {
        svc_bind_mem(kMessage<R>.services->decoding);
        read_image<kFixedImage<R>>(record, buffer);
        return sizeof(R);
      }
      if (root == kFullRoot && length >= kWord + full_size<R>() && matches_image<kFullImage<R>>(buffer + kWord)) {
        svc_bind_mem(kMessage<R>.services->decoding);
        read_image<kFullImage<R>>(record, buffer + kWord);
        return sizeof(R);
      }
    }
  }
  return unpack_root(decoder_of<R>(), buffer, length, record);
}

}  // namespace drix
