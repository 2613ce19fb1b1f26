// Decoding: root tables, tables below the root, and their slots.
//
// One flow decodes every type: it walks a list of the type's slots and reads nothing before it is checked. Ahead of it
// stand the quick readers; where one gives up, the flow starts afresh.
#pragma once

#include <array>
#include <cstdint>

#include "runtime/elements.h"
#include "runtime/image_runs.h"
#include "runtime/message.h"
#include "runtime/quick_read.h"
#include "runtime/release.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// What the decoding flow needs to know of a slot.
struct SlotShape {
  Kind kind;
  uint8_t width;           // bytes of a scalar or of an array's element
  uint16_t member;         // where f<I> stands in the record
  uint16_t length_member;  // where f<I>Len or f<I>Count stands
  union {
    uint16_t elements;  // of an array
    uint16_t inner;     // of a table or vector: which of the decoder's inner types it holds
  };
};

struct Decoder;

// A type inside another one.
struct InnerType {
  const Decoder *decoder;
  const ElementType *element;  // null for embedded records and when the quick readers are not built in
};

// What it needs to know of a type.
struct Decoder {
  const MessageInfo *message;
  uint32_t record_size;
  uint32_t slots;
  const SlotShape *shapes;
  const InnerType *inner;  // of embedded records and of vectors' elements

  // The quick reader of a fixed-length type, null for others and when none is built in. Sets every byte of a record
  // that it reads.
  bool (*read)(const uint8_t *buffer, uint32_t length, uint32_t position, void *record);

  // Of variable-length types, null for others.
  void (*release)(void *record);
};

// Decodes a whole buffer and returns the record's size.
uint32_t unpack_root(const Decoder &decoder, const uint8_t *buffer, uint32_t length, void *record);

template <class R>
struct DecoderOf {
  static constexpr std::size_t inner_count = [] {
    std::size_t count = 0;
    for_each_slot<R>([&](auto slot) constexpr { count += slot.kind == Kind::table || slot.kind == Kind::vector; });
    return count;
  }();

  static constexpr std::array<InnerType, inner_count> inner = [] {
    std::array<InnerType, inner_count> types{};
    std::size_t count = 0;
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::table) types[count++].decoder = &DecoderOf<typename S::Type>::decoder;
      if constexpr (S::kind == Kind::vector) {
        if constexpr (kQuickReaders) types[count].element = &kElementType<typename S::Element>;
        types[count++].decoder = &DecoderOf<typename S::Element>::decoder;
      }
    });
    return types;
  }();

  static constexpr std::array<SlotShape, kSlots<R>> shapes = [] {
    std::array<SlotShape, kSlots<R>> list{};
    uint16_t inner_types = 0;
    for_each_slot<R>([&]<class S>(S) constexpr {
      SlotShape &shape = list[S::index];
      shape.kind = S::kind;
      shape.member = static_cast<uint16_t>(S::offset);
      shape.length_member = static_cast<uint16_t>(S::length_offset);
      if constexpr (S::kind == Kind::scalar) shape.width = sizeof(typename S::Type);
      if constexpr (S::kind == Kind::array) {
        shape.width = sizeof(typename S::Element);
        shape.elements = static_cast<uint16_t>(S::elements);
      }
      if constexpr (S::kind == Kind::table || S::kind == Kind::vector) shape.inner = inner_types++;
    });
    return list;
  }();

  static constexpr Decoder decoder = [] {
    Decoder made = {&kMessage<R>, sizeof(R), kSlots<R>, shapes.data(), inner.data(), nullptr, nullptr};
    if constexpr (kQuickReaders && kFixedLength<R>) made.read = read_table<R>;
    if constexpr (!kFixedLength<R>) {
      made.release = [](void *record) { release_members(*static_cast<R *>(record)); };
    }
    return made;
  }();
};

// The decoder that a package exports for R, see X__unpack in drix_message.h.
template <class R>
uint32_t unpack(const uint8_t *buffer, uint32_t length, R *record) {
  if constexpr (kQuickReaders && kFixedLength<R>) {
    if (buffer != nullptr && record != nullptr && length >= kWord && length <= INT32_MAX) [[likely]] {
      const uint32_t root = load_once<uint32_t>(buffer);
      if (root == kWord && length >= kReadSize<kFixedImage<R>> && matches_image<kFixedImage<R>>(buffer)) {
        svc_bind_mem(kMessage<R>.services->decoding);
        read_image<kFixedImage<R>>(record, buffer);
        clear_padding(*record);
        return sizeof(R);
      }
      if (read_table<R>(buffer, length, root, record)) return sizeof(R);
    }
  }
  return unpack_root(DecoderOf<R>::decoder, buffer, length, record);
}

}  // namespace drix
