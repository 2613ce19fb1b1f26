// What happens between processes of which one was built with other types than the other.
#pragma once

#include <string>
#include <vector>

#include "describe/schema.h"

namespace drix::describe {

struct Difference {
  std::string what;         // names type and slot
  std::string consequence;  // for the wire or for the binary interface
  bool compatible;
};

std::vector<Difference> compare(const Schema &old_types, const Schema &new_types);

}  // namespace drix::describe
