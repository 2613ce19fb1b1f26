// Images: encodings whose every byte is known at compile time except the members' values.
//
// Two encodings of a fixed-length type are such constants with holes: the fixed layout, and the compact layout of a
// record whose scalars are all non-zero. An image is computed once per type, byte by byte.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

enum class Role : uint8_t { unwritten, constant, value };

template <std::size_t Size>
struct Image {
  std::array<uint8_t, Size> bytes{};
  std::array<Role, Size> roles{};
  std::array<uint16_t, Size> source{};  // of a value's byte: its place in the record, as if that were in wire order too
  std::array<uint8_t, Size> width{};    // of a value's byte: bytes of the scalar or element that it belongs to

  template <std::unsigned_integral T>
  constexpr void put(std::size_t at, T value) {
    for (std::size_t i = 0; i < sizeof(T); ++i) {
      bytes[at + i] = static_cast<uint8_t>(value >> (8 * i));
      roles[at + i] = Role::constant;
    }
  }

  constexpr void put_value(std::size_t at, std::size_t record_offset, std::size_t element_width, std::size_t count) {
    for (std::size_t i = 0; i < element_width * count; ++i) {
      roles[at + i] = Role::value;
      source[at + i] = static_cast<uint16_t>(record_offset + i);
      width[at + i] = static_cast<uint8_t>(element_width);
    }
  }
};

template <class R>
constexpr std::size_t fixed_length();

// Bytes that a slot takes inside a table of the fixed layout.
template <class S>
constexpr std::size_t fixed_slot_size() {
  if constexpr (S::kind == Kind::scalar) return sizeof(typename S::Type);
  if constexpr (S::kind == Kind::array) return kOffsetAndCount + sizeof(typename S::Type);
  if constexpr (S::kind == Kind::table) return fixed_length<typename S::Type>();
}

template <class R>
constexpr std::size_t fixed_table_size() {
  std::size_t size = kWord;
  for_each_slot<R>([&]<class S>(S) { size += fixed_slot_size<S>(); });
  return size;
}

// From the image's start, where the root offset stands.
template <class R>
constexpr std::size_t fixed_vtable_position() {
  return kWord + round_up(fixed_table_size<R>(), 4);
}

template <class R>
constexpr std::size_t fixed_length() {
  return round_up(fixed_vtable_position<R>() + vtable_length(kSlots<R>), 8);
}

// Puts the fixed layout of R at a position of an image; R's record starts at record_offset of the root record.
template <class R>
constexpr void put_fixed(auto &image, std::size_t start, std::size_t record_offset) {
  const std::size_t table = start + kWord;
  const std::size_t vtable = start + fixed_vtable_position<R>();
  image.put(start, kWord);
  image.put(table, static_cast<uint32_t>(table - vtable));
  image.put(vtable, static_cast<uint16_t>(vtable_length(kSlots<R>)));
  image.put(vtable + 2, static_cast<uint16_t>(fixed_table_size<R>()));
  std::size_t at = table + kWord;
  std::size_t entry = vtable + kVtableHeader;
  for_each_slot<R>([&]<class S>(S) {
    image.put(entry, static_cast<uint16_t>(at - table));
    const std::size_t source = record_offset + S::offset;
    if constexpr (S::kind == Kind::scalar) {
      image.put_value(at, source, sizeof(typename S::Type), 1);
    } else if constexpr (S::kind == Kind::array) {
      image.put(at, kWord);
      image.put(at + kWord, static_cast<uint32_t>(S::elements));
      image.put_value(at + kOffsetAndCount, source, sizeof(typename S::Element), S::elements);
    } else {
      put_fixed<typename S::Type>(image, at, source);
    }
    at += fixed_slot_size<S>();
    entry += 2;
  });
}

// Sizes of the compact layout of a fixed-length type whose scalars are all non-zero, without a root offset.
template <class R>
constexpr std::size_t full_table_size() {
  std::size_t size = kWord;
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::scalar) size += sizeof(typename S::Type);
    if constexpr (S::kind == Kind::array) size += kOffsetAndCount + sizeof(typename S::Type);
    if constexpr (S::kind == Kind::table) size += kWord;
  });
  return size;
}

template <class R>
constexpr std::size_t full_size() {
  std::size_t size = vtable_length(kSlots<R>) + full_table_size<R>();
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::table) size += full_size<typename S::Type>();
  });
  return size;
}

// Puts that encoding at a position of an image: vtable, table with scalars, offset words and arrays, nested tables.
template <class R>
constexpr void put_full(auto &image, std::size_t vtable, std::size_t record_offset) {
  const std::size_t table = vtable + vtable_length(kSlots<R>);
  image.put(vtable, static_cast<uint16_t>(vtable_length(kSlots<R>)));
  image.put(vtable + 2, static_cast<uint16_t>(full_table_size<R>()));
  image.put(table, vtable_length(kSlots<R>));
  std::size_t inline_at = table + kWord;
  std::size_t data_at = table + kWord;
  for_each_slot<R>([&]<class S>(S) { data_at += S::kind == Kind::scalar ? sizeof(typename S::Type) : kWord; });
  std::size_t nested_at = table + full_table_size<R>();
  const auto put_slots = [&](bool scalars) {
    std::size_t entry = vtable + kVtableHeader;
    for_each_slot<R>([&]<class S>(S) {
      const std::size_t source = record_offset + S::offset;
      if ((S::kind == Kind::scalar) == scalars) {
        image.put(entry, static_cast<uint16_t>(inline_at - table));
        if constexpr (S::kind == Kind::scalar) {
          image.put_value(inline_at, source, sizeof(typename S::Type), 1);
          inline_at += sizeof(typename S::Type);
        } else if constexpr (S::kind == Kind::array) {
          image.put(inline_at, static_cast<uint32_t>(data_at - inline_at));
          image.put(data_at, static_cast<uint32_t>(S::elements));
          image.put_value(data_at + kWord, source, sizeof(typename S::Element), S::elements);
          data_at += kWord + sizeof(typename S::Type);
          inline_at += kWord;
        } else {
          put_full<typename S::Type>(image, nested_at, source);
          const std::size_t nested_table = nested_at + vtable_length(kSlots<typename S::Type>);
          image.put(inline_at, static_cast<uint32_t>(nested_table - inline_at));
          nested_at += full_size<typename S::Type>();
          inline_at += kWord;
        }
      }
      entry += 2;
    });
  };
  put_slots(true);
  put_slots(false);
}

template <class R>
inline constexpr auto kFixedImage = [] {
  Image<fixed_length<R>()> image;
  put_fixed<R>(image, 0, 0);
  return image;
}();

// For writing: zeros where the layout leaves bytes unwritten, which readers do not look at. They go to another process,
// so they must not be what the memory held before.
template <class R>
inline constexpr auto kSentImage = [] {
  auto image = kFixedImage<R>;
  for (Role &role : image.roles) role = role == Role::unwritten ? Role::constant : role;
  return image;
}();

// Starts at the vtable, so that it serves root, embedded and element tables alike.
template <class R>
inline constexpr auto kFullImage = [] {
  Image<full_size<R>()> image;
  put_full<R>(image, 0, 0);
  return image;
}();

}  // namespace drix
