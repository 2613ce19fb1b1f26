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

// A table found in a buffer: its distance word and the whole vtable lie inside.
struct Table {
  const uint8_t *buffer;
  uint32_t length;         // of the buffer
  uint32_t position;       // of the table
  const uint8_t *entries;  // one 16-bit word per slot of the type; 0 where the vtable is too short
  const char *function;    // log name of the decoder at work

  uint32_t entry(std::size_t slot) const { return load<uint16_t>(entries + 2 * slot); }

  // Whether count bytes at a position lie inside the buffer.
  bool holds(uint32_t at, uint32_t count) const { return at <= length && count <= length - at; }

  // Follows the offset word at a position; false when the word lies outside the buffer or its addition wraps.
  [[nodiscard]] bool follow(uint32_t word, uint32_t &target) const {
    if (!holds(word, kWord)) return false;
    target = word + load<uint32_t>(buffer + word);
    return target >= word;
  }

  // The same for an offset word that leads to a count, which is read.
  [[nodiscard]] bool follow_to_count(uint32_t word, uint32_t &elements, uint32_t &count) const {
    uint32_t target;
    if (!follow(word, target) || !holds(target, kWord)) return false;
    count = load<uint32_t>(buffer + target);
    elements = target + kWord;
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

// Recognises a table of the compact layout whose scalars are all non-zero.
template <class R>
inline bool read_full_table(const uint8_t *buffer, uint32_t length, R &record, uint32_t position) {
  constexpr auto kSize = static_cast<uint32_t>(full_size<R>());
  constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  if (length < kSize || position < kWord + kVtableLength || position - kVtableLength > length - kSize) return false;
  const uint8_t *vtable = buffer + (position - kVtableLength);
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
bool unpack_slots(const Table &found, void *to) {
  const Table table = found;  // the record's bytes may alias anything, the copy nothing
  R &record = *static_cast<R *>(to);
  return all_slots<R>([&]<class S>(S) {
    auto &value = S::value(record);
    const uint32_t entry = table.entry(S::index);
    if (entry == 0) return true;
    const uint32_t at = table.position + entry;
    if constexpr (S::kind == Kind::scalar) {
      if (!table.holds(at, sizeof value)) return false;
      value = load<typename S::Type>(table.buffer + at);
      return true;
    } else if constexpr (S::kind == Kind::array) {
      uint32_t elements;
      uint32_t count;
      if (!table.follow_to_count(at, elements, count)) return false;
      if (count != S::elements || !table.holds(elements, sizeof value)) return false;
      copy_elements<typename S::Element>(value, table.buffer + elements, S::elements);
      return true;
    } else if constexpr (S::kind == Kind::bytes) {
      return unpack_bytes(table, kMessage<R>.services->decoding, at, S::length(record), value);
    } else if constexpr (S::kind == Kind::table) {
      uint32_t position;
      return table.follow(at, position) && unpack_nested(table.buffer, table.length, value, position);
    } else {
      using Element = typename S::Element;
      void *records = nullptr;
      uint32_t words;
      if (!open_vector(table, kMessage<R>.services->decoding, at, sizeof(Element), S::count(record), records, words)) {
        return false;
      }
      value = static_cast<Element *>(records);
      const uint32_t count = S::count(record);
      for (uint32_t i = 0; i < count; ++i, words += kWord) {
        uint32_t position;
        if (!table.follow(words, position)) return false;
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
    if (buffer != nullptr && record != nullptr && length <= INT32_MAX) [[likely]] {
      if (length >= kReadSize<kFixedImage<R>> && matches_image<kFixedImage<R>>(buffer)) {
        svc_bind_mem(kMessage<R>.services->decoding);
        read_image<kFixedImage<R>>(record, buffer);
        return sizeof(R);
      }
      if (length >= kWord + full_size<R>() && load<uint32_t>(buffer) == kFullRoot &&
          matches_image<kFullImage<R>>(buffer + kWord)) {
        svc_bind_mem(kMessage<R>.services->decoding);
        read_image<kFullImage<R>>(record, buffer + kWord);
        return sizeof(R);
      }
    }
  }
  return unpack_root(decoder_of<R>(), buffer, length, record);
}

}  // namespace drix
