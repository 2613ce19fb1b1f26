// The message types as a table of text rows, typed in by hand beside the C structures of the public headers, so that a
// wrong structure and a wrong row cannot agree by accident.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "tools/records/records.h"

namespace reference {

// What is known about a type's encodings. 0: not listed.
struct Constants {
  uint32_t id = 0;
  uint32_t fixed_length = 0;
  uint32_t vtable_length = 0;
  uint32_t table_size = 0;       // fixed layout
  uint32_t vtable_position = 0;  // fixed layout
  uint32_t compact_zero = 0;     // compact length of the all-zero record
  uint32_t compact_set = 0;      // compact length with every scalar non-zero
};

// slots: the kinds in slot order: u8 u16 u32, u8[N] u32[N], bytes, the message name of an earlier row of the package
// for an embedded record, that name and [] for a vector; a suffix *N repeats. offsets: each slot's place in the fixed
// table.
struct Row {
  const char *message;
  const char *slots;
  Constants listed = {};
  const char *offsets = "";
};

using records::Kind;
using records::SlotInfo;

// What a row says and what follows: names, the hashed ID, size and slots of the record, and the fixed layout's length.
struct Type : drix::describe::Type {
  Constants listed;
  std::vector<uint32_t> listed_offsets;
  size_t record_alignment = 1;
  std::string own_package, own_message;
  std::vector<SlotInfo> own_slots;
};

// The 100 message types of the library, package by package, each in registration order.
const std::vector<const Type *> &all_types();

// All types of one package in row order. "probe" holds shapes beyond those of the library.
std::vector<const Type *> types_of(const std::string &package);

// Adds a type to any package, for as long as the process lives.
const Type &add(const std::string &package, const Row &row);

// Throws std::invalid_argument for an unknown name.
const Type &find(const std::string &package, const std::string &message);

}  // namespace reference
