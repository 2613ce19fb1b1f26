// Quick readers of fixed-length types, for the tables that this library itself writes.
//
// They look for what such a table has in common with all of its kind and check that much at once; what differs from
// table to table is read without a branch. They log nothing and leave everything else to the decoding flow, which has
// the last word on every buffer: a quick reader takes a table only when no check of the flow would fail, and then gives
// the same record, padding included.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>

#include "runtime/image.h"
#include "runtime/image_runs.h"
#include "runtime/message.h"
#include "runtime/padding.h"
#include "runtime/slots.h"
#include "runtime/wire.h"

namespace drix {

// Whether the quick readers are built in, see docs/performance.md.
inline constexpr bool kQuickReaders = DRIX_QUICK_READERS;

// The slot entries of a table's vtable, four to a word, read once: what is checked here is what is used later, also
// when another process writes to the buffer meanwhile.
template <class R>
class Entries {
 public:
  Entries() = default;
  explicit Entries(const uint8_t *from) {
    for_each_word([&]<std::size_t i>() { words_[i] = load_lanes(from + 2 * first_slot(i)); });
  }

  template <std::size_t slot>
  std::size_t offset() const {
    constexpr std::size_t i = slot / kLanes;
    return words_[i] >> (16 * (slot - first_slot(i))) & 0xFFFF;
  }

  // Whether all slots have their inline bytes before the buffer's end, which is room bytes from the table's start. May
  // also answer no where they are more than 32 KiB from the start.
  bool in_reach(uint32_t room) const {
    const uint64_t reach = kOnes * std::min(room, uint32_t{0x7FFF});
    uint64_t in_reach = kTops;
    // A lane's top bit stays set when its offset is not above the limit. Only a lane whose offset has the top bit can
    // borrow from the next one, and that lane fails for all.
    for_each_word([&]<std::size_t i>() {
      constexpr uint64_t kWidthsHere = kWidths[i];
      in_reach &= (((reach - kWidthsHere) | kTops) - words_[i]) & ~words_[i];
    });
    return in_reach == kTops;
  }

 private:
  static constexpr std::size_t kLanes = 4;
  static constexpr uint64_t kOnes = 0x0001'0001'0001'0001;
  static constexpr uint64_t kTops = 0x8000'8000'8000'8000;
  static constexpr std::size_t kWords = (kSlots<R> + kLanes - 1) / kLanes;

  // The last word reaches back rather than past the entries; of fewer slots than lanes, the lanes left over are zero.
  static constexpr std::size_t first_slot(std::size_t word) {
    return kSlots<R> < kLanes ? 0 : std::min(word * kLanes, kSlots<R> - kLanes);
  }

  static constexpr std::array<uint64_t, kWords> kWidths = [] {
    std::array<uint64_t, kSlots<R>> widths{};
    for_each_slot<R>([&]<class S>(S) constexpr {
      if constexpr (S::kind == Kind::scalar) widths[S::index] = sizeof(typename S::Type);
      if constexpr (S::kind != Kind::scalar) widths[S::index] = kWord;
    });
    std::array<uint64_t, kWords> words{};
    for (std::size_t i = 0; i < kWords; ++i) {
      for (std::size_t lane = 0; lane < kLanes && first_slot(i) + lane < kSlots<R>; ++lane) {
        words[i] |= widths[first_slot(i) + lane] << (16 * lane);
      }
    }
    return words;
  }();

  template <class Visit>
  [[gnu::always_inline]] static void for_each_word(Visit visit) {
    [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
      (visit.template operator()<I>(), ...);
    }
    (std::make_index_sequence<kWords>());
  }

  static uint64_t load_lanes(const uint8_t *from) {
    constexpr std::size_t kLanesHere = std::min(kSlots<R>, kLanes);
    if constexpr (kLanesHere == kLanes && sizeof(std::size_t) == sizeof(uint64_t)) {
      return load_once<uint64_t>(from);
    } else if constexpr (kLanesHere == kLanes) {
      return load_once<uint32_t>(from) | uint64_t{load_once<uint32_t>(from + 4)} << 32;
    } else {
      uint64_t lanes = 0;
      for (std::size_t lane = 0; lane < kLanesHere; ++lane) {
        lanes |= uint64_t{load_once<uint16_t>(from + 2 * lane)} << (16 * lane);
      }
      return lanes;
    }
  }

  std::array<uint64_t, kWords> words_{};
};

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
  clear_padding(record);
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
  const uint32_t room = length - position;
  if (load<uint32_t>(start) != kVtableLength || load<uint16_t>(vtable) != kVtableLength) return false;
  svc_bind_mem(kMessage<R>.services->decoding);
  if constexpr (LastTable<R>().all_slots >= kManySlots) {
    if (read_full_table(vtable, room + kVtableLength, record)) return true;
  }
  const Entries<R> entries(vtable + kVtableHeader);
  if (!entries.in_reach(room)) return false;
  clear_own_padding(record);
  return all_slots<R>([&]<class S>(S) {
    auto &value = S::value(record);
    const std::size_t at = entries.template offset<S::index>();
    if constexpr (S::kind == Kind::scalar) {
      value = load_if<typename S::Type>(at != 0, start + at);
      return true;
    } else if constexpr (S::kind == Kind::array) {
      const uint64_t elements = uint64_t{at} + load_once<uint32_t>(start + at) + kWord;
      if (at == 0 || elements + sizeof value > room) return false;
      if (load<uint32_t>(start + elements - kWord) != S::elements) return false;
      copy_elements<typename S::Element>(value, start + elements, S::elements);
      return true;
    } else {
      const uint64_t inner = uint64_t{position} + at + load_once<uint32_t>(start + at);
      return at != 0 && inner <= length &&
             read_table<typename S::Type>(buffer, length, static_cast<uint32_t>(inner), &value);
    }
  });
}

}  // namespace drix
