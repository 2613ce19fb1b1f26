#include "inspect/walk.h"

#include <algorithm>
#include <array>

#include "inspect/coverage.h"
#include "runtime/wire.h"

namespace drix::inspect {
namespace {

using describe::Slot;
using describe::Type;

constexpr uint8_t kNoSlot = 0;

class Walk {
 public:
  Walk(const uint8_t *buffer, uint32_t length, Sink *sink)
      : buffer_(buffer), length_(length), sink_(sink), coverage_(length) {
    verdict_.length = length;
  }

  Verdict run(const Type &type) {
    const Place root = {&type, Place::kNone, Place::kNone};
    const uint32_t position = load<uint32_t>(buffer_);
    const Event offset = {root, Thing::root_offset, kNoSlot, 0, kWord, position, 0};
    if (reach_table(position, offset)) walk_table(root, position);
    const Thing rest = verdict_.accepted() ? Thing::unreferenced : Thing::unreached;
    coverage_.for_each_gap([&](uint32_t at, uint32_t size) { tell({root, rest, kNoSlot, at, size, 0, 0}); });
    flush();
    return verdict_;
  }

 private:
  void tell(const Event &event) {
    coverage_.add(event.at, event.size);
    if (count_ == pending_.size()) flush();
    pending_[count_++] = event;
  }

  void flush() {
    if (sink_ != nullptr && count_ > 0) sink_->take({pending_.data(), count_});
    count_ = 0;
  }

  [[gnu::cold]] bool reject(Reason reason, const Event &culprit, uint64_t target) {
    verdict_ = {reason, culprit, target, length_};
    return false;
  }

  bool holds(uint64_t at, uint64_t size) const { return at + size <= length_; }

  // Whether a table may stand at a position, to which a word leads.
  bool reach_table(uint64_t position, const Event &word) {
    if (position > UINT32_MAX) return reject(Reason::offset_wraps, word, position);
    if (position < kWord || position > length_ - kWord) return reject(Reason::table_position, word, position);
    tell(word);
    return true;
  }

  bool walk_table(const Place &place, uint32_t table) {
    const uint32_t distance = load<uint32_t>(buffer_ + table);
    const uint32_t vtable = table - distance;
    const Event word = {place, Thing::distance, kNoSlot, table, kWord, distance, 0};
    if (vtable < kWord || vtable > length_ - kWord) return reject(Reason::vtable_position, word, vtable);
    tell(word);
    const uint32_t size = load<uint16_t>(buffer_ + vtable);
    const Event vtable_size = {place, Thing::vtable_length, kNoSlot, vtable, 2, size, 0};
    if (!holds(vtable, size)) return reject(Reason::vtable_length, vtable_size, uint64_t{vtable} + size);
    tell(vtable_size);
    const uint32_t slots = walk_entries(place, vtable, size);
    tell_unwritten(place, table, vtable, size);
    for (uint32_t i = 0; i < slots; ++i) {
      const uint32_t at = vtable + vtable_length(i);
      const uint32_t entry = load<uint16_t>(buffer_ + at);
      if (entry != 0 && !walk_slot({place, Thing::slot_entry, static_cast<uint8_t>(i), at, 2, entry, 0}, table)) {
        return false;
      }
    }
    return true;
  }

  // Returns how many of the type's slots the vtable reaches.
  uint32_t walk_entries(const Place &place, uint32_t vtable, uint32_t size) {
    uint32_t at = 2;
    uint32_t slots = 0;
    if (size >= kVtableHeader) {
      tell({place, Thing::table_size, kNoSlot, vtable + at, 2, load<uint16_t>(buffer_ + vtable + at), 0});
      at += 2;
      slots = std::min((size - at) / 2, static_cast<uint32_t>(place.type->slots.size()));
    }
    for (uint32_t i = 0; i < slots; ++i, at += 2) {
      tell({place, Thing::slot_entry, static_cast<uint8_t>(i), vtable + at, 2, load<uint16_t>(buffer_ + vtable + at),
            0});
    }
    if (size > at) tell({place, Thing::more_entries, kNoSlot, vtable + at, size - at, 0, 0});
    return slots;
  }

  // A table that stands before its vtable as the fixed layout puts it has a gap between and one behind.
  void tell_unwritten(const Place &place, uint32_t table, uint32_t vtable, uint32_t vtable_size) {
    const Type &type = *place.type;
    const uint64_t table_end = uint64_t{table} + type.fixed_table_size;
    if (!type.is_fixed() || vtable != round_up(type.fixed_table_size, 4) + table) return;
    if (vtable_size != vtable_length(type.slots.size())) return;
    const uint32_t end = std::min(table - kWord + type.fixed_length, length_);
    tell_gap(place, static_cast<uint32_t>(table_end), vtable);
    tell_gap(place, vtable + vtable_size, end);
  }

  void tell_gap(const Place &place, uint32_t from, uint32_t to) {
    if (from < to) tell({place, Thing::unwritten, kNoSlot, from, to - from, 0, 0});
  }

  bool walk_slot(const Event &entry, uint32_t table) {
    const Slot &slot = entry.place.type->slots[entry.slot];
    const uint64_t at = uint64_t{table} + entry.value;
    const uint32_t size = slot.kind == Kind::scalar ? slot.width : kWord;
    if (!holds(at, size)) return reject(Reason::slot_past_end, entry, at);
    const auto position = static_cast<uint32_t>(at);
    if (slot.kind == Kind::scalar) {
      tell({entry.place, Thing::scalar, entry.slot, position, size, load_scalar(position, size), 0});
      return true;
    }
    const Event word = {
        entry.place, Thing::offset_word, entry.slot, position, size, load<uint32_t>(buffer_ + position), 0};
    if (slot.kind == Kind::table) return walk_inner(word, {slot.inner, entry.slot, Place::kNone});
    return walk_counted(slot, word);
  }

  uint32_t load_scalar(uint32_t at, uint32_t width) const {
    if (width == 1) return buffer_[at];
    if (width == 2) return load<uint16_t>(buffer_ + at);
    return load<uint32_t>(buffer_ + at);
  }

  bool walk_inner(const Event &word, const Place &inner) {
    const uint64_t position = uint64_t{word.at} + word.value;
    return reach_table(position, word) && walk_table(inner, static_cast<uint32_t>(position));
  }

  // An array, byte string or vector.
  bool walk_counted(const Slot &slot, const Event &word) {
    const uint64_t target = uint64_t{word.at} + word.value;
    if (target > UINT32_MAX) return reject(Reason::offset_wraps, word, target);
    if (!holds(target, kWord)) return reject(Reason::count_past_end, word, target);
    tell(word);
    const auto at = static_cast<uint32_t>(target);
    const Event count = {word.place, Thing::count, word.slot, at, kWord, load<uint32_t>(buffer_ + at), 0};
    if (slot.kind == Kind::array && count.value != slot.elements) return reject(Reason::wrong_count, count, 0);
    const uint32_t width = slot.kind == Kind::array ? slot.width : slot.kind == Kind::bytes ? 1 : kWord;
    const uint64_t size = uint64_t{count.value} * width;
    if (!holds(target + kWord, size)) return reject(Reason::elements_past_end, count, target + kWord + size);
    tell(count);
    if (slot.kind == Kind::vector) return walk_elements(*slot.inner, count);
    if (size > 0) {
      tell({word.place, Thing::elements, word.slot, at + kWord, static_cast<uint32_t>(size), 0, 0});
    }
    return true;
  }

  bool walk_elements(const Type &inner, const Event &count) {
    const uint64_t memory = uint64_t{count.value} * inner.record_size;
    if (memory > UINT32_MAX) return reject(Reason::too_many_elements, count, memory);
    for (uint32_t i = 0; i < count.value; ++i) {
      const uint32_t at = count.at + kWord + kWord * i;
      const Event word = {count.place, Thing::element_word, count.slot, at, kWord, load<uint32_t>(buffer_ + at), i};
      if (!walk_inner(word, {&inner, count.slot, i})) return false;
    }
    return true;
  }

  const uint8_t *buffer_;
  uint32_t length_;
  Sink *sink_;
  Coverage coverage_;
  Verdict verdict_ = {};
  std::size_t count_ = 0;
  std::array<Event, 128> pending_;
};

std::string whose(const Event &culprit) {
  const std::string path = path_of(culprit.place);
  return path.empty() ? "the root table" : path;
}

}  // namespace

Verdict walk(const Type &type, const uint8_t *buffer, uint32_t length, Sink *sink) {
  if (length >= kWord && length <= INT32_MAX) return Walk(buffer, length, sink).run(type);
  const Place root = {&type, Place::kNone, Place::kNone};
  const Event whole = {root, Thing::unreached, kNoSlot, 0, length, 0, 0};
  if (sink != nullptr && length > 0) sink->take({&whole, 1});
  return {Reason::length, whole, length, length};
}

std::string path_of(const Place &place) {
  if (place.outer == Place::kNone) return {};
  std::string path = "f" + std::to_string(place.outer);
  if (place.element != Place::kNone) path += '[' + std::to_string(place.element) + ']';
  return path;
}

std::string path_of(const Place &place, uint32_t slot) {
  const std::string outer = path_of(place);
  return (outer.empty() ? outer : outer + '.') + 'f' + std::to_string(slot);
}

std::string explain(const Verdict &verdict) {
  const Event &culprit = verdict.culprit;
  const std::string target = std::to_string(verdict.target);
  const std::string value = std::to_string(culprit.value);
  const std::string field = path_of(culprit.place, culprit.slot);
  const std::string length = std::to_string(verdict.length);
  const std::string past_end = ", which reaches past the end at " + length;
  switch (verdict.reason) {
    case Reason::accepted:
      return "accepted";
    case Reason::length:
      return "a buffer has 4 to 2147483647 bytes, not " + target;
    case Reason::table_position:
      if (culprit.thing == Thing::root_offset) return "the root offset leads to " + target + ", where no table fits";
      if (culprit.thing == Thing::offset_word) return field + " leads to a table at " + target + past_end;
      return field + '[' + std::to_string(culprit.element) + "] leads to a table at " + target + past_end;
    case Reason::vtable_position:
      return "the distance of " + whose(culprit) + " puts its vtable at " + target + ", where none fits";
    case Reason::vtable_length:
      return "the vtable of " + whose(culprit) + " has " + value + " bytes and would end at " + target +
             ", past the end at " + length;
    case Reason::slot_past_end:
      return field + " would be at " + target + past_end;
    case Reason::offset_wraps:
      return "the offset of " + field + " leads past 2^32";
    case Reason::count_past_end:
      return field + " leads to a count at " + target + past_end;
    case Reason::wrong_count:
      return field + " has " + value + " elements and is to have " +
             std::to_string(culprit.place.type->slots[culprit.slot].elements);
    case Reason::elements_past_end:
      return field + " has a count of " + value + " and would end at " + target + ", past the end at " + length;
    case Reason::too_many_elements:
      break;
  }
  return field + " has " + value + " elements, which take " + target + " bytes of memory";
}

}  // namespace drix::inspect
