// The types as text, one line a type in the order of their names, to be kept and compared:
//
//   fib6Sync.ipv6FwdKey 0x8814A6B6 fixed=72 compact=57..66 record=28 u32@0 u32@4 u32[4]@8 u8@24 u8[3]@25
//   fib6_cfg.query_comm_param 0xCC4E6BC6 variable compact=18.. record=16/24 u32@0 u32@4 bytes@12/16
//
// After the name stand message ID, encoded lengths, the record's size, and each slot's kind with its member's place.
// Sizes and places are given for processors with pointers of 4 bytes and, behind a slash where they differ, of 8
// bytes, so that the text is the same on every processor and either binary interface is checked on both. The length or
// count before a pointer has no place of its own: it is the word before, at the next multiple of 4.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "describe/type.h"

namespace drix::describe {

// A size or place in records with pointers of 4 and of 8 bytes.
struct ByPointer {
  uint32_t of_4;
  uint32_t of_8;
  bool operator==(const ByPointer &) const = default;
};

struct SchemaSlot {
  Kind kind;
  uint32_t width;     // as in SlotInfo
  uint32_t elements;  // as in SlotInfo
  std::string inner;  // message of a table or of a vector's elements
  ByPointer member;
};

struct SchemaType {
  std::string name;
  uint32_t id;
  uint32_t fixed_length;  // as in Type
  uint32_t compact_least;
  uint32_t compact_most;
  ByPointer record_size;
  std::vector<SchemaSlot> slots;
};

using Schema = std::vector<SchemaType>;  // in the order of names

Schema current_schema();
std::string to_text(const Schema &schema);
std::string to_text(const SchemaType &type);
std::string kind_text(const SchemaSlot &slot);

// What a message about a slot begins with.
std::string slot_text(std::size_t slot);

// Of text that is no schema, or describes what no record can be.
struct SchemaError : std::runtime_error {
  SchemaError(std::size_t in_line, const std::string &what) : std::runtime_error(what), line(in_line) {}
  std::size_t line;  // from 1
};

// The text may be hostile. What types say of each other is not looked at, see Catalog. Throws SchemaError.
Schema parse_schema(std::string_view text);

}  // namespace drix::describe
