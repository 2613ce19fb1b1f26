#include "describe/catalog.h"

#include <algorithm>

#include "runtime/wire.h"

namespace drix::describe {
namespace {

bool has_inner(const SchemaSlot &slot) { return slot.kind == Kind::table || slot.kind == Kind::vector; }

bool is_flat(const SchemaType &type) { return std::none_of(type.slots.begin(), type.slots.end(), has_inner); }

bool is_bytes(const SlotInfo &slot) { return slot.kind == Kind::bytes; }

bool owns_memory(const Type &type) { return std::any_of(type.slots.begin(), type.slots.end(), is_bytes); }

// Beside the record, for each 4 bytes of a message: all slots' offsets may lead to the same bytes.
uint64_t memory_of(const SlotInfo &slot) {
  if (slot.kind == Kind::bytes) return kWord;
  if (slot.kind == Kind::vector) return slot.inner->record_size;
  if (slot.kind != Kind::table) return 0;
  return kWord * static_cast<uint64_t>(std::count_if(slot.inner->slots.begin(), slot.inner->slots.end(), is_bytes));
}

[[noreturn]] void fail(const std::string &what) { throw std::invalid_argument(what); }

}  // namespace

const Catalog &Catalog::own() {
  static const Catalog catalog;
  return catalog;
}

Catalog::Catalog() : types_(describe::types().begin(), describe::types().end()) {
  for (const Type *type : types_) by_id_.emplace(type->id, type);
}

// Types that hold others come second: nesting is one level deep.
Catalog::Catalog(const Schema &schema) {
  for (const bool flat : {true, false}) {
    for (std::size_t i = 0; i < schema.size(); ++i) {
      try {
        if (is_flat(schema[i]) == flat) make(schema[i], flat);
      } catch (const std::invalid_argument &error) {
        throw SchemaError(i + 2, error.what());  // behind the heading
      }
    }
  }
}

void Catalog::make(const SchemaType &from, bool is_flat) {
  Made &made = made_.emplace_back(Made{from.name, {}, {}, 0});
  for (std::size_t i = 0; i < from.slots.size(); ++i) {
    try {
      add_slot(made, from.slots[i]);
    } catch (const std::invalid_argument &error) {
      fail(slot_text(i) + error.what());
    }
  }
  const std::size_t dot = made.name.find('.');
  made.type.package = std::string_view(made.name).substr(0, dot);
  made.type.message = std::string_view(made.name).substr(dot + 1);
  made.type.id = from.id;
  made.type.slots = made.slots;
  if (is_flat) flat_.emplace(made.name, &made.type);
  types_.push_back(&made.type);
  const auto [known, is_new] = by_id_.emplace(from.id, &made.type);
  if (!is_new) fail("the ID is that of " + known->second->name());
}

void Catalog::add_slot(Made &made, const SchemaSlot &slot) const {
  uint32_t &size = made.type.record_size;
  const auto add = [&](uint32_t bytes) {
    const uint32_t at = size;
    size += bytes;
    if (size > UINT16_MAX) fail("the record has more than 65535 bytes");
    return static_cast<uint16_t>(at);
  };
  SlotInfo to = {slot.kind, static_cast<uint8_t>(slot.width), static_cast<uint16_t>(slot.elements), 0, 0, nullptr};
  if (has_inner(slot)) to.inner = &inner_of(made, slot);
  const bool is_owner = slot.kind == Kind::bytes || slot.kind == Kind::vector;
  if (is_owner) to.length_member = add(sizeof(uint32_t));
  const uint32_t inner_size = slot.kind == Kind::table ? to.inner->record_size : 0;
  to.member = add(is_owner ? sizeof(void *) : inner_size + slot.width * std::max<uint32_t>(slot.elements, 1));
  made.memory += memory_of(to);
  if (made.memory > kWord * kMostMemory) {
    fail("records would take more than " + std::to_string(kMostMemory) + " times their message's length");
  }
  made.slots.push_back(to);
}

const Type &Catalog::inner_of(const Made &outer, const SchemaSlot &slot) const {
  const std::string name = outer.name.substr(0, outer.name.find('.') + 1) + slot.inner;
  const auto found = flat_.find(name);
  if (found == flat_.end()) fail(name + " is missing or holds tables itself");
  if (slot.kind == Kind::vector && owns_memory(*found->second)) fail(name + " owns memory and is no element");
  return *found->second;
}

}  // namespace drix::describe
