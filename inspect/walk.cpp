#include "inspect/walk.h"

#include <algorithm>
#include <array>

#include "inspect/coverage.h"
#include "runtime/wire.h"

namespace drix::inspect {
namespace {

using describe::SlotInfo;
using describe::Type;

constexpr uint16_t kNoSlot = 0;

// Events are written where the sink will find them: a word is drafted there, and kept once its value is taken.
class Walk {
 public:
  Walk(const Type &type, const uint8_t *buffer, uint32_t length, Sink *sink)
      : buffer_(buffer),
        length_(length),
        sink_(sink),
        coverage_(length),
        path_{&type, TablePath::kNone, TablePath::kNone},
        verdict_{.reason = Reason::accepted, .path = path_, .culprit = {}, .target = 0, .length = length} {}

  Verdict run() {
    const uint32_t position = load<uint32_t>(buffer_);
    reserve(1);
    if (reach_table(position, draft(Thing::root_offset, kNoSlot, 0, kWord, position))) walk_table(position);
    const Thing rest = verdict_.accepted() ? Thing::unreferenced : Thing::unreached;
    coverage_.for_each_gap([&](uint32_t at, uint32_t size) {
      reserve(1);
      draft(rest, kNoSlot, at, size);
      ++next_;
    });
    flush();
    return verdict_;
  }

 private:
  static constexpr std::size_t kPending = 256;
  // Distance, vtable with its entries, unwritten gaps; for each slot an offset word, a count and elements.
  static constexpr std::size_t kMostOfTable = 6 + 4 * kMaxSlots;
  static_assert(kMostOfTable <= kPending);

  // Makes room for so many events.
  void reserve(std::size_t events) {
    if (pending_.data() + kPending - next_ < static_cast<std::ptrdiff_t>(events)) flush();
  }

  Event &draft(Thing thing, std::size_t slot, uint32_t at, uint32_t size, uint32_t value = 0, uint32_t element = 0) {
    return write(next_, thing, slot, at, size, value, element);
  }

  static Event &write(Event *to, Thing thing, std::size_t slot, uint32_t at, uint32_t size, uint32_t value = 0,
                      uint32_t element = 0) {
    to->thing = thing;
    to->slot = static_cast<uint16_t>(slot);
    to->at = at;
    to->size = size;
    to->value = value;
    to->element = element;
    return *to;
  }

  // Of the event that was drafted last.
  void keep(const Event &event) {
    coverage_.add(event.at, event.size);
    ++next_;
  }

  [[gnu::noinline]] void flush() {
    if (sink_ != nullptr && next_ != pending_.data()) sink_->take(path_, {pending_.data(), next_});
    next_ = pending_.data();
  }

  [[gnu::cold]] bool reject(Reason reason, const Event &culprit, uint64_t target) {
    verdict_ = {reason, path_, culprit, target, length_};
    coverage_.add(culprit.at, culprit.size);
    return false;
  }

  bool holds(uint64_t at, uint64_t size) const { return at + size <= length_; }

  // Whether a table may stand at a position, to which a word leads.
  bool reach_table(uint64_t position, const Event &word) {
    if (position > UINT32_MAX) return reject(Reason::offset_wraps, word, position);
    if (position < kWord || position > length_ - kWord) return reject(Reason::table_position, word, position);
    keep(word);
    return true;
  }

  bool walk_table(uint32_t table) {
    reserve(kMostOfTable);
    const uint32_t distance = load<uint32_t>(buffer_ + table);
    const uint32_t vtable = table - distance;
    const Event &word = draft(Thing::distance, kNoSlot, table, kWord, distance);
    if (vtable < kWord || vtable > length_ - kWord) return reject(Reason::vtable_position, word, vtable);
    keep(word);
    const uint32_t size = load<uint16_t>(buffer_ + vtable);
    const Event &vtable_size = draft(Thing::vtable_length, kNoSlot, vtable, 2, size);
    if (!holds(vtable, size)) return reject(Reason::vtable_length, vtable_size, uint64_t{vtable} + size);
    ++next_;
    coverage_.add_apart(vtable, std::max(size, uint32_t{2}));
    const std::size_t slots = tell_entries(vtable, size);
    tell_unwritten(table, vtable, size);
    return walk_slots(table, vtable, slots);
  }

  // Returns how many of the type's slots the vtable reaches.
  std::size_t tell_entries(uint32_t vtable, uint32_t size) {
    Event *to = next_;
    uint32_t at = vtable + 2;
    std::size_t slots = 0;
    if (size >= kVtableHeader) {
      slots = std::min<std::size_t>((size - kVtableHeader) / 2, path_.type->slots.size());
      write(to++, Thing::table_size, kNoSlot, at, 2, load<uint16_t>(buffer_ + at));
      at += 2;
    }
    for (std::size_t i = 0; i < slots; ++i, at += 2) {
      write(to++, Thing::slot_entry, i, at, 2, load<uint16_t>(buffer_ + at));
    }
    if (at < vtable + size) write(to++, Thing::more_entries, kNoSlot, at, vtable + size - at);
    next_ = to;
    return slots;
  }

  // A table that stands before its vtable as the fixed layout puts it has a gap between and one behind.
  void tell_unwritten(uint32_t table, uint32_t vtable, uint32_t vtable_size) {
    const Type &type = *path_.type;
    if (!type.is_fixed() || vtable != table + round_up(type.fixed_table_size, 4)) return;
    if (vtable_size != vtable_length(type.slots.size())) return;
    tell_gap(table + type.fixed_table_size, vtable);
    tell_gap(vtable + vtable_size, std::min(table - kWord + type.fixed_length, length_));
  }

  void tell_gap(uint32_t from, uint32_t to) {
    if (from >= to) return;
    draft(Thing::unwritten, kNoSlot, from, to - from);
    ++next_;
    coverage_.add_apart(from, to - from);
  }

  bool walk_slots(uint32_t table, uint32_t vtable, std::size_t slots) {
    Event *to = next_;  // scalars are most of what there is, and wait for no member of the walk
    for (std::size_t i = 0; i < slots; ++i) {
      const uint32_t entry = vtable + vtable_length(i);
      const uint32_t offset = load<uint16_t>(buffer_ + entry);
      if (offset == 0) continue;
      const SlotInfo &slot = path_.type->slots[i];
      const uint64_t target = uint64_t{table} + offset;
      const uint32_t size = slot.kind == Kind::scalar ? slot.width : kWord;
      if (!holds(target, size)) {
        return reject(Reason::slot_past_end, write(next_ = to, Thing::slot_entry, i, entry, 2, offset), target);
      }
      const auto at = static_cast<uint32_t>(target);
      if (slot.kind == Kind::scalar) {
        write(to++, Thing::scalar, i, at, size, load_scalar(at, size));
        coverage_.add(at, size);
        continue;
      }
      next_ = to;
      if (!follow_word(slot, draft(Thing::offset_word, i, at, size, load<uint32_t>(buffer_ + at)))) return false;
      to = next_;
    }
    next_ = to;
    return true;
  }

  bool follow_word(const SlotInfo &slot, const Event &word) {
    if (slot.kind == Kind::table) return walk_inner(word, {slot.inner, word.slot, TablePath::kNone});
    return walk_counted(slot, word);
  }

  uint32_t load_scalar(uint32_t at, uint32_t width) const {
    if (width == 1) return buffer_[at];
    if (width == 2) return load<uint16_t>(buffer_ + at);
    return load<uint32_t>(buffer_ + at);
  }

  bool walk_inner(const Event &word, const TablePath &inner) {
    const uint64_t position = uint64_t{word.at} + word.value;
    if (!reach_table(position, word)) return false;
    flush();
    const TablePath outer = path_;
    path_ = inner;
    const bool good = walk_table(static_cast<uint32_t>(position));
    flush();
    path_ = outer;
    return good;
  }

  // An array, byte string or vector.
  bool walk_counted(const SlotInfo &slot, const Event &word) {
    const uint64_t target = uint64_t{word.at} + word.value;
    if (target > UINT32_MAX) return reject(Reason::offset_wraps, word, target);
    if (!holds(target, kWord)) return reject(Reason::count_past_end, word, target);
    keep(word);
    const auto at = static_cast<uint32_t>(target);
    const uint32_t elements = load<uint32_t>(buffer_ + at);
    const Event &count = draft(Thing::count, word.slot, at, kWord, elements);
    if (slot.kind == Kind::array && elements != slot.elements) return reject(Reason::wrong_count, count, 0);
    const uint32_t width = slot.kind == Kind::array ? slot.width : slot.kind == Kind::bytes ? 1 : kWord;
    const uint64_t end = target + kWord + uint64_t{elements} * width;
    if (end > length_) return reject(Reason::elements_past_end, count, end);
    keep(count);
    if (slot.kind == Kind::vector) return walk_elements(*slot.inner, count);
    if (elements > 0) keep(draft(Thing::elements, word.slot, at + kWord, elements * width));
    return true;
  }

  bool walk_elements(const Type &inner, const Event &count) {
    const uint32_t elements = count.value;
    const uint32_t slot = count.slot;
    const uint64_t memory = uint64_t{elements} * inner.record_size;
    if (memory > UINT32_MAX) return reject(Reason::too_many_elements, count, memory);
    uint32_t at = count.at + kWord;
    for (uint32_t i = 0; i < elements; ++i, at += kWord) {
      reserve(1);
      const Event &word = draft(Thing::element_word, slot, at, kWord, load<uint32_t>(buffer_ + at), i);
      if (!walk_inner(word, {&inner, slot, i})) return false;
    }
    return true;
  }

  const uint8_t *buffer_;
  uint32_t length_;
  Sink *sink_;
  Coverage coverage_;
  TablePath path_;
  Verdict verdict_;
  std::array<Event, kPending> pending_;
  Event *next_ = pending_.data();
};

std::string whose(const TablePath &path) {
  const std::string text = path_text(path);
  return text.empty() ? "the root table" : text;
}

}  // namespace

Verdict walk(const Type &type, const uint8_t *buffer, uint32_t length, Sink *sink) {
  if (length >= kWord && length <= INT32_MAX) return Walk(type, buffer, length, sink).run();
  const TablePath root = {&type, TablePath::kNone, TablePath::kNone};
  const Event whole = {Thing::unreached, kNoSlot, 0, length, 0, 0};
  if (sink != nullptr && length > 0) sink->take(root, {&whole, 1});
  return {Reason::length, root, whole, length, length};
}

std::string path_text(const TablePath &path) {
  if (path.outer == TablePath::kNone) return {};
  std::string text = "f" + std::to_string(path.outer);
  if (path.element != TablePath::kNone) text += '[' + std::to_string(path.element) + ']';
  return text;
}

std::string path_text(const TablePath &path, uint32_t slot) {
  const std::string outer = path_text(path);
  return (outer.empty() ? outer : outer + '.') + 'f' + std::to_string(slot);
}

std::string explain(const Verdict &verdict) {
  const Event &culprit = verdict.culprit;
  const std::string target = std::to_string(verdict.target);
  const std::string value = std::to_string(culprit.value);
  const std::string field = path_text(verdict.path, culprit.slot);
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
      return "the distance of " + whose(verdict.path) + " puts its vtable at " + target + ", where none fits";
    case Reason::vtable_length:
      return "the vtable of " + whose(verdict.path) + " has " + value + " bytes and would end at " + target +
             ", past the end at " + length;
    case Reason::slot_past_end:
      return field + " would be at " + target + past_end;
    case Reason::offset_wraps:
      return "the offset of " + field + " leads past 2^32";
    case Reason::count_past_end:
      return field + " leads to a count at " + target + past_end;
    case Reason::wrong_count:
      return field + " has " + value + " elements and is to have " +
             std::to_string(verdict.path.type->slots[culprit.slot].elements);
    case Reason::elements_past_end:
      return field + " has a count of " + value + " and would end at " + target + ", past the end at " + length;
    case Reason::too_many_elements:
      break;
  }
  return field + " has " + value + " elements, which take " + target + " bytes of memory";
}

}  // namespace drix::inspect
