#include "inspect/table.h"

#include <algorithm>

namespace drix::inspect {
namespace {

using describe::SlotInfo;
using describe::Type;

const Role *find_role(const Labels::Roles &first, const Labels::Roles &second, const Type *type) {
  for (const Labels::Roles *roles : {&first, &second}) {
    const auto found = roles->find(type);
    if (found != roles->end()) return &found->second;
  }
  return nullptr;
}

bool is_same(const Type &a, const Type &b, std::size_t slot) {
  return slot < a.slots.size() && describe::kind_text(a.slots[slot]) == describe::kind_text(b.slots[slot]);
}

const Type &carried_of(const Type &message, const std::vector<std::size_t> &members) {
  return members.empty() ? message : *message.slots[members[0]].inner;
}

// A record owns nothing if its bytes are all there is; between the members they are zero.
bool owns(const Type &type) {
  return std::any_of(type.slots.begin(), type.slots.end(), [](const SlotInfo &slot) {
    return slot.kind == Kind::bytes || slot.kind == Kind::vector || (slot.kind == Kind::table && owns(*slot.inner));
  });
}

void append(std::string &to, const void *bytes, std::size_t size) { to.append(static_cast<const char *>(bytes), size); }

void append_record(std::string &to, const Type &type, const uint8_t *record);

void append_member(std::string &to, const SlotInfo &slot, const uint8_t *record) {
  const uint8_t *const value = record + slot.member;
  if (slot.kind == Kind::table) return append_record(to, *slot.inner, value);
  if (slot.kind != Kind::bytes && slot.kind != Kind::vector) {
    return append(to, value, slot.width * std::max<std::size_t>(slot.elements, 1));
  }
  const auto count = member<uint32_t>(record, slot.length_member);
  const auto *const first = member<const uint8_t *>(value, 0);
  append(to, &count, sizeof count);
  if (slot.kind == Kind::bytes && count > 0) append(to, first, count);
  for (std::size_t i = 0; slot.kind == Kind::vector && i < count; ++i) {
    append_record(to, *slot.inner, first + i * slot.inner->record_size);
  }
}

void append_record(std::string &to, const Type &type, const uint8_t *record) {
  if (!owns(type)) return append(to, record, type.record_size);
  for (const SlotInfo &slot : type.slots) append_member(to, slot, record);
}

// Puts back what was appended.
class Restorer {
 public:
  Restorer(std::string_view image, Record &owner) : rest_(image), owner_(owner) {}

  void read_record(const Type &type, uint8_t *record) {
    if (!owns(type)) return take(record, type.record_size);
    for (const SlotInfo &slot : type.slots) read_member(slot, record);
  }

  void read_member(const SlotInfo &slot, uint8_t *record) {
    uint8_t *const value = record + slot.member;
    if (slot.kind == Kind::table) return read_record(*slot.inner, value);
    if (slot.kind != Kind::bytes && slot.kind != Kind::vector) {
      return take(value, slot.width * std::max<std::size_t>(slot.elements, 1));
    }
    uint32_t count = 0;
    take(&count, sizeof count);
    uint8_t *const block = make_block(slot, record, count);
    if (slot.kind == Kind::bytes && count > 0) take(block, count);
    for (std::size_t i = 0; slot.kind == Kind::vector && i < count; ++i) {
      read_record(*slot.inner, block + i * slot.inner->record_size);
    }
  }

  // Of so many bytes or elements.
  uint8_t *make_block(const SlotInfo &slot, uint8_t *record, uint32_t count) {
    if (count == 0) return nullptr;
    const std::size_t size = slot.kind == Kind::vector ? slot.inner->record_size : 1;
    uint8_t *const block = owner_.allocate(count * size);
    set_member(record, slot.length_member, count);
    set_member(record, slot.member, block);
    return block;
  }

 private:
  void take(void *to, std::size_t size) {
    std::memcpy(to, rest_.data(), size);
    rest_.remove_prefix(size);
  }

  std::string_view rest_;
  Record &owner_;
};

}  // namespace

Tables::Tables(const Labels &labels) {
  static const Labels known(Labels::kTables);
  for (const Labels::Roles *roles : {&labels.tellers(), &known.tellers()}) {
    for (const auto &[message, role] : *roles) {
      if (own_.find(message) == own_.end()) own_.emplace(message, make(*message, role, labels, known));
    }
  }
  std::sort(all_.begin(), all_.end(),
            [](const TableInfo *a, const TableInfo *b) { return a->record->name() < b->record->name(); });
  for (std::size_t i = 0; i < all_.size(); ++i) tables_.at(all_[i]->record).number = static_cast<uint8_t>(i);
}

const TableInfo &Tables::table_of(const Type &record, const Labels &labels, const Labels &known) {
  const auto [place, is_new] = tables_.try_emplace(&record);
  if (!is_new) return place->second;
  TableInfo &table = place->second;
  table.record = &record;
  all_.push_back(&table);
  const Role *const role = find_role(labels.keys(), known.keys(), &record);
  if (role != nullptr && role->part == Role::Part::key) {
    table.key = role->members;
    return table;
  }
  for (const Labels::Roles *roles : {&labels.keys(), &known.keys()}) {
    for (const auto &[type, key] : *roles) {
      if (table.key.empty() && key.record == &record) table.key = key.record_members;
    }
  }
  if (table.key.empty()) throw TableError("no members of " + record.name() + " are said to be the key of its table");
  return table;
}

Telling Tables::make(const Type &message, const Role &role, const Labels &labels, const Labels &known) {
  const Type &carried = carried_of(message, role.members);
  const Role *const key = role.part == Role::Part::deletes ? find_role(labels.keys(), known.keys(), &carried) : nullptr;
  const bool is_key = key != nullptr && key->part == Role::Part::key_of;
  const TableInfo &table = table_of(is_key ? *key->record : carried, labels, known);
  const Role *const apart = find_role(labels.apart(), known.apart(), &carried);
  Telling telling = {&table, &message, &carried, role.members, {}, {}, role.part == Role::Part::deletes};
  if (apart != nullptr) {
    if (owns(carried)) throw TableError(carried.name() + " owns memory, so no member of it stands apart");
    telling.apart = apart->members;
  }
  for (const std::size_t slot : table.key) {
    if (!is_key) {
      telling.key.push_back(slot);
      continue;
    }
    const auto found = std::find(key->record_members.begin(), key->record_members.end(), slot);
    if (found == key->record_members.end()) {
      throw TableError("no member of " + carried.name() + " is said to be f" + std::to_string(slot) + " of " +
                       table.record->name() + ", which is in its key");
    }
    telling.key.push_back(key->members[static_cast<std::size_t>(found - key->record_members.begin())]);
  }
  return telling;
}

const Telling *Tables::find(const Type &message) {
  const auto own = own_.find(&message);
  if (own != own_.end()) return &own->second;
  const auto [place, is_new] = others_.try_emplace(&message);
  std::optional<Telling> &telling = place->second;
  if (!is_new) return telling ? &*telling : nullptr;
  const Type *const like = describe::find(message.name());
  const auto found = like == nullptr || like == &message ? own_.end() : own_.find(like);
  if (found == own_.end()) return nullptr;
  const auto have = [](const Type &type, const Type &as, const std::vector<std::size_t> &members) {
    return std::all_of(members.begin(), members.end(), [&](std::size_t slot) { return is_same(type, as, slot); });
  };
  Telling other = found->second;
  if (!have(message, *like, other.members)) return nullptr;
  const Type &carried = carried_of(message, other.members);
  if (!have(carried, *other.carried, other.key) || !have(carried, *other.carried, other.apart)) return nullptr;
  other.message = &message;
  other.carried = &carried;
  telling = std::move(other);
  return &*telling;
}

void make_key(const Telling &telling, const uint8_t *carried, std::string &key) {
  key.assign(1, static_cast<char>(telling.table->number));
  for (const std::size_t index : telling.key) {
    const SlotInfo &slot = telling.carried->slots[index];
    const std::size_t numbers = std::max<std::size_t>(slot.elements, 1);
    for (std::size_t i = 0; i < numbers; ++i) {
      const uint32_t number = number_at(carried + slot.member + i * slot.width, slot.width);
      for (uint32_t shift = 8u * slot.width; shift > 0; shift -= 8) key += static_cast<char>(number >> (shift - 8));
    }
  }
}

Record record_of_key(const TableInfo &table, std::string_view key) {
  Record record(*table.record);
  std::size_t at = 1;
  for (const std::size_t index : table.key) {
    const SlotInfo &slot = table.record->slots[index];
    const std::size_t numbers = std::max<std::size_t>(slot.elements, 1);
    for (std::size_t i = 0; i < numbers; ++i) {
      uint32_t number = 0;
      for (uint32_t k = 0; k < slot.width; ++k) number = number << 8 | static_cast<uint8_t>(key[at++]);
      set_number(record.data() + slot.member + i * slot.width, slot.width, number);
    }
  }
  return record;
}

void make_image(const Telling &telling, const uint8_t *record, const uint8_t *carried, std::string &image) {
  image.clear();
  append_record(image, *telling.carried, carried);
  for (const std::size_t index : telling.apart) {
    const SlotInfo &slot = telling.carried->slots[index];
    std::memset(image.data() + slot.member, 0, slot.width * std::max<std::size_t>(slot.elements, 1));
  }
  for (std::size_t i = 1; i < telling.members.size(); ++i) {
    append_member(image, telling.message->slots[telling.members[i]], record);
  }
}

Record message_of(const Telling &telling, std::string_view image) {
  Record record(*telling.message);
  Restorer restorer(image, record);
  uint8_t *carried = record.data();
  if (!telling.members.empty()) {
    const SlotInfo &slot = telling.message->slots[telling.members[0]];
    carried = slot.kind == Kind::table ? carried + slot.member : restorer.make_block(slot, carried, 1);
  }
  restorer.read_record(*telling.carried, carried);
  for (std::size_t i = 1; i < telling.members.size(); ++i) {
    restorer.read_member(telling.message->slots[telling.members[i]], record.data());
  }
  return record;
}

const uint8_t *carried_in(const Telling &telling, const uint8_t *record) {
  const uint8_t *carried = nullptr;
  for_each_told(telling, record, [&](const uint8_t *at) { carried = at; });
  return carried;
}

}  // namespace drix::inspect
