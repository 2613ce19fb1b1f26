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
  static const Catalog &own();

  // Makes types that can be walked and shown, but have no operations: their records are laid out as suits inspect/, and
  // no processor's library knows them. The schema may be hostile; throws SchemaError where it describes what no type
  // can be.
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
    std::vector<Slot> slots;
    Type type;
  };

  Catalog();
  void make(const SchemaType &from);
  const Type &inner_of(const Made &outer, const SchemaSlot &slot) const;

  std::deque<Made> made_;  // none of them moves
  std::unordered_map<std::string, const Type *> made_by_name_;
  std::vector<const Type *> types_;
  std::unordered_map<uint32_t, const Type *> by_id_;
};

}  // namespace drix::describe
