#include "inspect/record.h"

#include <cstdlib>
#include <new>

#include "runtime/wire.h"

namespace drix::inspect {

using describe::SlotInfo;

// calloc, so that the kernel brings the memory of a vast vector only where elements are written.
uint8_t *Record::allocate(std::size_t size) {
  auto *const block = static_cast<uint8_t *>(std::calloc(1, size));
  if (block == nullptr) throw std::bad_alloc();
  blocks_.emplace_back(block);
  return block;
}

void Record::Free::operator()(uint8_t *block) const { std::free(block); }

uint32_t number_at(const uint8_t *address, uint32_t width) {
  if (width == 1) return *address;
  if (width == 2) return member<uint16_t>(address, 0);
  return member<uint32_t>(address, 0);
}

void set_number(uint8_t *address, uint32_t width, uint32_t value) {
  if (width == 1) set_member(address, 0, static_cast<uint8_t>(value));
  if (width == 2) set_member(address, 0, static_cast<uint16_t>(value));
  if (width == 4) set_member(address, 0, value);
}

void RecordBuilder::take(const TablePath &path, std::span<const Event> events) {
  uint8_t *const record = table_record(path);
  for (const Event &event : events) set(event, *path.type, record);
}

uint8_t *RecordBuilder::table_record(const TablePath &path) {
  if (path.outer == TablePath::kNone) return record_.data();
  const SlotInfo &outer = record_.type().slots[path.outer];
  if (outer.kind == Kind::table) return record_.data() + outer.member;
  return member<uint8_t *>(record_.data(), outer.member) + std::size_t{path.element} * path.type->record_size;
}

void RecordBuilder::set(const Event &event, const describe::Type &type, uint8_t *record) {
  const bool wanted = event.thing == Thing::scalar || event.thing == Thing::count || event.thing == Thing::elements ||
                      event.thing == Thing::element_word;
  if (!wanted) return;
  const SlotInfo &slot = type.slots[event.slot];
  uint8_t *const to = record + slot.member;
  if (event.thing == Thing::scalar) {
    set_number(to, slot.width, event.value);
  } else if (event.thing == Thing::count && slot.kind != Kind::array) {
    set_member(record, slot.length_member, event.value);
  } else if (event.thing == Thing::elements && slot.kind == Kind::bytes) {
    uint8_t *const block = record_.allocate(event.size);
    std::memcpy(block, buffer_ + event.at, event.size);
    set_member(to, 0, block);
  } else if (event.thing == Thing::elements && slot.width == 1) {
    copy_elements<uint8_t>(to, buffer_ + event.at, slot.elements);
  } else if (event.thing == Thing::elements) {
    copy_elements<uint32_t>(to, buffer_ + event.at, slot.elements);
  } else if (event.thing == Thing::element_word && event.element == 0) {
    const std::size_t count = member<uint32_t>(record, slot.length_member);
    set_member(to, 0, record_.allocate(count * slot.inner->record_size));
  }
}

}  // namespace drix::inspect
