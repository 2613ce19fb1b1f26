// Quick readers of fixed-length types, for the tables that this library itself writes.
//
// They look for what such a table has in common with all of its kind and check that much at once; what differs from
// table to table is read without a branch. They log nothing and leave everything else to the decoding flow, which has
// the last word on every buffer: a quick reader takes a table only when no check of the flow would fail, and then gives
// the same record.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "runtime/image.h"
#include "runtime/image_runs.h"
#include "runtime/message.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// Four vtable entries side by side.
inline constexpr uint64_t kLaneOnes = 0x0001'0001'0001'0001;
inline constexpr uint64_t kLaneTops = 0x8000'8000'8000'8000;

// Whether all slots of R have their inline bytes before the buffer's end, which is room bytes from the table's start.
// May also answer no where they are more than 32 KiB from the start.
template <class R>
[[gnu::always_inline]] inline bool slots_in_reach(const uint8_t *entries, uint32_t room) {
  constexpr std::size_t kLanes = 4;
  constexpr std::size_t N = kSlots<R>;
  constexpr std::array<uint64_t, N> widths = [] {
    std::array<uint64_t, N> list{};
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::scalar) list[S::index] = sizeof(typename S::Type);
      if constexpr (S::kind != Kind::scalar) list[S::index] = kWord;
    });
    return list;
  }();
  const uint64_t reach = kLaneOnes * std::min(room, uint32_t{0x7FFF});
  uint64_t in_reach = kLaneTops;
  const auto check = [&]<std::size_t first, std::size_t count>() {
    constexpr uint64_t kWidths = [=] {
      uint64_t packed = 0;
      for (std::size_t i = 0; i < count; ++i) packed |= widths[first + i] << (16 * i);
      return packed;
    }();
    uint64_t offsets = 0;
    std::memcpy(&offsets, entries + 2 * first, 2 * count);
    offsets = to_wire_order(offsets);
    // A lane's top bit stays set when its offset is not above the limit. Only a lane whose offset has the top bit can
    // borrow from the next one, and that lane fails for all.
    in_reach &= (((reach - kWidths) | kLaneTops) - offsets) & ~offsets;
  };
  [&]<std::size_t... I>(std::index_sequence<I...>) { (check.template operator()<kLanes * I, kLanes>(), ...); }
  (std::make_index_sequence<N / kLanes>());
  if constexpr (N % kLanes != 0 && N > kLanes) check.template operator()<N - kLanes, kLanes>();
  if constexpr (N < kLanes) check.template operator()<0, N>();
  return in_reach == kLaneTops;
}

// The table that stands last in the compact layout of R: R's own or an embedded one.
template <class R>
struct LastTable {
  std::size_t all_slots = kSlots<R>;  // of R with all tables embedded in it
  std::size_t size = full_table_size<R>();
  std::size_t vtable = 0;  // from R's vtable, in an image without zeros

  constexpr LastTable() {
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::table) {
        all_slots += LastTable<typename S::Type>().all_slots;
        size = full_table_size<typename S::Type>();
        vtable = full_size<R>() - full_size<typename S::Type>();
      }
    });
  }
};

// Reads a table whose scalars are all non-zero: it differs from others of its kind in nothing but values. The size of
// its last part tells most tables apart at once.
template <class R>
[[gnu::always_inline]] inline bool read_full_table(const uint8_t *vtable, std::size_t room, R &record) {
  constexpr LastTable<R> kLast;
  if (room < full_size<R>() || load<uint16_t>(vtable + kLast.vtable + 2) != kLast.size) return false;
  if (!matches_image<kFullImage<R>>(vtable)) return false;
  read_image<kFullImage<R>>(&record, vtable);
  return true;
}

// From so many slots on, that is worth its code.
inline constexpr std::size_t kManySlots = 8;

// The quick reader of R, for a buffer that is neither null nor shorter than a word nor longer than INT32_MAX. False
// when the table at a position is anything but plain, with the record in whatever state.
//
// Plain is a table of the compact layout: right behind its vtable, which has all slots, and with all arrays and
// embedded tables present. Its scalars are read without a branch: for an absent one, the distance word at the table's
// start is read instead and masked out.
template <class R>
bool read_table(const uint8_t *buffer, uint32_t length, uint32_t position, void *to) {
  R &record = *static_cast<R *>(to);
  constexpr uint32_t kVtableLength = vtable_length(kSlots<R>);
  if (position < kWord + kVtableLength || position > length - kWord) return false;
  const uint8_t *const start = buffer + position;
  const uint8_t *const vtable = start - kVtableLength;
  const uint8_t *const entries = vtable + kVtableHeader;
  const uint32_t room = length - position;
  if (load<uint32_t>(start) != kVtableLength || load<uint16_t>(vtable) != kVtableLength) return false;
  svc_bind_mem(kMessage<R>.services->decoding);
  if constexpr (LastTable<R>().all_slots >= kManySlots) {
    if (read_full_table(vtable, room + kVtableLength, record)) return true;
  }
  if (!slots_in_reach<R>(entries, room)) return false;
  return all_slots<R>([&]<class S>(S) {
    auto &value = S::value(record);
    const std::size_t at = load<uint16_t>(entries + 2 * S::index);
    if constexpr (S::kind == Kind::scalar) {
      const auto present = load<typename S::Type>(start + at);
      value = at != 0 ? present : typename S::Type{0};
      return true;
    } else if constexpr (S::kind == Kind::array) {
      const uint64_t elements = uint64_t{at} + load<uint32_t>(start + at) + kWord;
      if (at == 0 || elements + sizeof value > room) return false;
      if (load<uint32_t>(start + elements - kWord) != S::elements) return false;
      copy_elements<typename S::Element>(value, start + elements, S::elements);
      return true;
    } else {
      const uint64_t inner = uint64_t{position} + at + load<uint32_t>(start + at);
      return at != 0 && inner <= length &&
             read_table<typename S::Type>(buffer, length, static_cast<uint32_t>(inner), &value);
    }
  });
}

}  // namespace drix
