// How far a buffer was decoded, and what there is to see of its record.
#pragma once

#include <cstddef>
#include <limits>

#include "inspect/record.h"
#include "inspect/walk.h"

namespace drix::inspect {

// So many slots of the root, and of the next one so many elements and then so many slots of a table.
struct Extent {
  static constexpr std::size_t kAll = std::numeric_limits<std::size_t>::max();

  std::size_t root_slots = kAll;
  std::size_t elements = 0;
  std::size_t inner_slots = 0;
  bool has_inner = false;
};

// Of an accepted buffer everything.
Extent extent_of(const Verdict &verdict);

// Calls visit(path, slot, record of the path's table) for each member that was decoded and is no table or vector
// itself, in order, members of an absent table and elements' too, until it returns false.
template <class Visit>
void for_each_member(const describe::Type &type, const uint8_t *record, const Extent &extent, Visit visit) {
  const auto visit_table = [&](const TablePath &path, const uint8_t *table, std::size_t slots) {
    for (std::size_t i = 0; i < path.type->slots.size() && i < slots; ++i) {
      if (!visit(path, i, table)) return false;
    }
    return true;
  };
  for (std::size_t i = 0; i < type.slots.size() && i <= extent.root_slots; ++i) {
    const describe::SlotInfo &slot = type.slots[i];
    const bool whole = i < extent.root_slots;
    const auto outer = static_cast<uint32_t>(i);
    if (slot.kind == Kind::table && (whole || extent.has_inner)) {
      const std::size_t slots = whole ? Extent::kAll : extent.inner_slots;
      if (!visit_table({slot.inner, outer, TablePath::kNone}, record + slot.member, slots)) return;
    } else if (slot.kind == Kind::vector) {
      const auto *const first = member<const uint8_t *>(record, slot.member);
      const std::size_t elements = whole ? member<uint32_t>(record, slot.length_member) : extent.elements;
      const std::size_t begun = elements + (!whole && extent.has_inner);
      for (std::size_t k = 0; k < begun; ++k) {
        const TablePath path = {slot.inner, outer, static_cast<uint32_t>(k)};
        const std::size_t slots = k < elements ? Extent::kAll : extent.inner_slots;
        if (!visit_table(path, first + k * slot.inner->record_size, slots)) return;
      }
    } else if (slot.kind != Kind::table && whole) {
      if (!visit(TablePath{&type, TablePath::kNone, TablePath::kNone}, i, record)) return;
    }
  }
}

}  // namespace drix::inspect
