// A vector's elements, by the best of the ways that the processor has instructions for.
#pragma once

#include "runtime/element_masks.h"
#include "runtime/element_shuffles.h"
#include "runtime/element_type.h"

namespace drix {

// Writes a vector's elements from end on, and their places into the offset words; returns the end of all that was
// written.
uint8_t *write_elements(const ElementType &type, uint8_t *words, uint32_t count, const void *records, uint8_t *end);

// Reads up to count elements, whose offset words stand at a place in a buffer as read_table() takes it; returns how
// many of them were plain. The record of the next one is in whatever state then.
uint32_t read_elements(const ElementType &type, const uint8_t *buffer, uint32_t length, uint32_t words, uint32_t count,
                       void *records);

// How many bytes the zeros among the scalars of so many records have.
uint64_t zero_bytes(const ElementType &type, const void *records, uint32_t count);

template <class R>
inline constexpr ElementType kElementType = [] {
  using Tables = ElementTables<R>;
  ElementType type = {};
  type.build_table = build_table<R>;
  if constexpr (kQuickReaders) type.read_table = read_table<R>;
  type.windows = Tables::windows.data();
  type.window_count = Tables::kWindows;
  type.record_size = sizeof(R);
  type.full_size = full_size<R>();
  type.vtable_length = Tables::kVtable;
  type.last_read = Tables::last_read();
#ifdef DRIX_HAS_SHUFFLES
  if constexpr (Tables::kShuffles) {
    type.write_by_shuffles = write_by_shuffles<Tables::kWindows, Tables::kHeads>;
    if constexpr (kQuickReaders) type.read_by_shuffles = read_by_shuffles<Tables::kWindows, Tables::kHeads>;
    type.shuffles = Tables::shuffles.data();
    type.heads = Tables::heads.data();
    type.arrays = Tables::arrays.data();
    type.array_count = Tables::kCounts.arrays;
    type.widths = Tables::widths;
    type.behind = Tables::behind;
    type.tail_size = Tables::kCounts.tail;
    type.last_written = Tables::last_written();
  }
#endif
#ifdef DRIX_HAS_MASKS
  if constexpr (Tables::kMasks) type.masks = &Tables::masks;
#endif
  return type;
}();

}  // namespace drix
