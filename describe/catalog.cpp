#include "describe/catalog.h"

#include <algorithm>

namespace drix::describe {
namespace {

bool has_inner(const SchemaSlot &slot) { return slot.kind == Kind::table || slot.kind == Kind::vector; }

bool is_flat(const SchemaType &type) { return std::none_of(type.slots.begin(), type.slots.end(), has_inner); }

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
        if (is_flat(schema[i]) == flat) make(schema[i]);
      } catch (const std::invalid_argument &error) {
        throw SchemaError(i + 2, error.what());  // behind the heading
      }
    }
  }
}

void Catalog::make(const SchemaType &from) {
  Made &made = made_.emplace_back(Made{from.name, {}, {}});
  const std::size_t dot = made.name.find('.');
  if (dot == std::string::npos) fail("a type's name is PACKAGE.MESSAGE, not \"" + made.name + '"');
  uint32_t size = 0;
  const auto add = [&](uint32_t bytes) {
    const uint32_t at = size;
    size += bytes;
    if (size > UINT16_MAX) fail(made.name + " has a record of more than 65535 bytes");
    return static_cast<uint16_t>(at);
  };
  for (const SchemaSlot &slot : from.slots) {
    if (slot.elements > UINT16_MAX) fail(made.name + " has an array of more than 65535 elements");
    Slot to = {slot.kind, static_cast<uint8_t>(slot.width), static_cast<uint16_t>(slot.elements), 0, 0, nullptr};
    if (has_inner(slot)) to.inner = &inner_of(made, slot);
    const bool is_owner = slot.kind == Kind::bytes || slot.kind == Kind::vector;
    if (is_owner) to.length_member = add(sizeof(uint32_t));
    const uint32_t inner_size = slot.kind == Kind::table ? to.inner->record_size : 0;
    to.member = add(is_owner ? sizeof(void *) : inner_size + slot.width * std::max<uint32_t>(slot.elements, 1));
    made.slots.push_back(to);
  }
  made.type.package = std::string_view(made.name).substr(0, dot);
  made.type.message = std::string_view(made.name).substr(dot + 1);
  made.type.id = from.id;
  made.type.record_size = size;
  made.type.slots = made.slots;
  made_by_name_.emplace(made.name, &made.type);
  types_.push_back(&made.type);
  by_id_.emplace(from.id, &made.type);
}

const Type &Catalog::inner_of(const Made &outer, const SchemaSlot &slot) const {
  const std::string name = outer.name.substr(0, outer.name.find('.') + 1) + slot.inner;
  const auto found = made_by_name_.find(name);
  if (found == made_by_name_.end()) fail(outer.name + " holds " + name + ", which is missing or holds tables itself");
  const auto owns = [](const Slot &inner) { return inner.kind == Kind::bytes; };
  const std::span<const Slot> slots = found->second->slots;
  if (slot.kind == Kind::vector && std::any_of(slots.begin(), slots.end(), owns)) {
    fail(name + " owns memory and is no element of " + outer.name);
  }
  return *found->second;
}

}  // namespace drix::describe
