// The description of a record type that records.h walks, as the library itself has it from the compiler.
#pragma once

#include <array>
#include <span>

#include "runtime/slots.h"
#include "tools/records/records.h"

namespace records {

struct Shape {
  std::span<const RecordSlot<Shape>> slots;
  std::size_t record_size;
};

template <class R>
struct ShapeOf {
  static constexpr std::array<RecordSlot<Shape>, drix::kSlots<R>> slots = [] {
    std::array<RecordSlot<Shape>, drix::kSlots<R>> list{};
    drix::for_each_slot<R>([&]<class S>(S) constexpr {
      RecordSlot<Shape> &slot = list[S::index];
      slot.length_member = S::length_offset;
      slot.member = S::offset;
      if constexpr (S::kind == drix::Kind::scalar) {
        slot.kind = Kind::scalar;
        slot.width = sizeof(typename S::Type);
        slot.count = 1;
      } else if constexpr (S::kind == drix::Kind::array) {
        slot.kind = Kind::array;
        slot.width = sizeof(typename S::Element);
        slot.count = S::elements;
      } else if constexpr (S::kind == drix::Kind::bytes) {
        slot.kind = Kind::bytes;
      } else if constexpr (S::kind == drix::Kind::table) {
        slot.kind = Kind::table;
        slot.type = &ShapeOf<typename S::Type>::shape;
      } else {
        slot.kind = Kind::vector;
        slot.type = &ShapeOf<typename S::Element>::shape;
      }
    });
    return list;
  }();
  static constexpr Shape shape = {slots, sizeof(R)};
};

template <class R>
inline constexpr const Shape &kShape = ShapeOf<R>::shape;

}  // namespace records
