// What a thing in a buffer means, in words.
#pragma once

#include <cstdint>
#include <string>

#include "inspect/json.h"
#include "inspect/walk.h"
#include "tools/quopa/byte_map.h"

namespace quopa {

class Meaning {
 public:
  Meaning(const drix::describe::Type &root, const uint8_t *buffer, const drix::inspect::JsonStyle &style)
      : root_(root), buffer_(buffer), style_(style) {}

  // Of the entry's bytes from the given one on, for a row of the map.
  std::string text(const Entry &entry, uint32_t from, uint32_t size) const;

 private:
  std::string table_name(const drix::inspect::TablePath &path) const;
  std::string slot_name(const drix::inspect::TablePath &path, uint32_t slot) const;
  std::string elements_text(const Entry &entry, uint32_t from, uint32_t size) const;

  const drix::describe::Type &root_;
  const uint8_t *buffer_;
  const drix::inspect::JsonStyle &style_;
};

}  // namespace quopa
