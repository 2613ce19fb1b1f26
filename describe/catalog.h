// The types that messages may be of: those of this program, or those that a schema text describes, like the one that a
// trace of an older program brings along.
#pragma once

#include <deque>
#include <span>
#include <string>
#include <unordered_map>
#include <vector>

#include "describe/schema.h"
#include "describe/type.h"

namespace drix::describe {

class Catalog {
 public:
  // Three times what the own types take: 340 bytes for the 4 of a vector's element.
  static constexpr uint32_t kMostMemory = 256;

  static const Catalog &own();

  // Makes types that can be walked and shown, but have no operations: their records are laid out as suits inspect/, and
  // no processor's library knows them. The schema, which parse_schema made, may be hostile: throws SchemaError where it
  // describes what no type can be, or a type whose record takes more than kMostMemory times its message's length and
  // 64 KiB. Takes time in proportion to the schema.
  explicit Catalog(const Schema &schema);
  Catalog(const Catalog &) = delete;
  Catalog &operator=(const Catalog &) = delete;

  std::span<const Type *const> types() const { return types_; }

  // Null when there is none.
  const Type *find(uint32_t id) const {
    const auto found = by_id_.find(id);
    return found == by_id_.end() ? nullptr : found->second;
  }

 private:
  struct Made {
    std::string name;
    std::vector<SlotInfo> slots;
    Type type;
    uint64_t memory;  // that records take beside themselves for each 4 bytes of a message
  };

  Catalog();
  void make(const SchemaType &from, bool is_flat);
  void add_slot(Made &made, const SchemaSlot &slot) const;
  const Type &inner_of(const Made &outer, const SchemaSlot &slot) const;

  std::deque<Made> made_;                               // none of them moves
  std::unordered_map<std::string, const Type *> flat_;  // types that others may hold, by name
  std::vector<const Type *> types_;
  std::unordered_map<uint32_t, const Type *> by_id_;
};

}  // namespace drix::describe
