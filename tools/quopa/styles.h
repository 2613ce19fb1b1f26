// How records of the types of every catalog are shown: a user's labels are for this version's types.
#pragma once

#include <map>

#include "capture/message.h"
#include "inspect/json.h"

namespace quopa {

using capture::Origin;

class Styles {
 public:
  Styles(drix::inspect::Labels labels, bool ipv6) : own_{std::move(labels), ipv6} {}

  // Of this version's types.
  const drix::inspect::JsonStyle &own() const { return own_; }

  // Members that are the same in another version keep their labels there.
  const drix::inspect::JsonStyle &of(const Origin &origin) {
    if (origin.types == &drix::describe::Catalog::own()) return own_;
    const auto known = others_.find(origin.types);
    if (known != others_.end()) return known->second;
    drix::inspect::JsonStyle style = {own_.labels.carried_over(origin.types->types()), own_.ipv6};
    return others_.emplace(origin.types, std::move(style)).first->second;
  }

 private:
  drix::inspect::JsonStyle own_;
  std::map<const drix::describe::Catalog *, drix::inspect::JsonStyle> others_;
};

}  // namespace quopa
