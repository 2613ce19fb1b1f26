// What a message type looks like, as data at run time. The compiler reads it off the records in the packages' headers;
// nothing about a type is typed in again.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "describe/suggestion.h"
#include "runtime/slots.h"

namespace drix::describe {

struct Type;

struct SlotInfo {
  Kind kind;
  uint8_t width;           // bytes of a scalar or of an array's element
  uint16_t elements;       // of an array
  uint16_t member;         // where f<I> stands in the record
  uint16_t length_member;  // where f<I>Len or f<I>Count stands
  const Type *inner;       // of a table or of a vector's elements

  bool is_address() const { return kind == Kind::array && width == 4 && elements == 4; }  // may be one of IPv6
};

// The exported operations, see drix_message.h.
struct Operations {
  int32_t (*pack)(const void *record, uint8_t *buffer, uint32_t *length);
  uint32_t (*unpack)(const uint8_t *buffer, uint32_t length, void *record);
  void (*free_unpacked)(void *record);
  int32_t (*sendsingle)(uint32_t handle, const void *record, uint32_t count, uint32_t destination);
};

struct Type {
  std::string_view package;
  std::string_view message;
  uint32_t id;
  uint32_t record_size;
  uint32_t fixed_length;      // of the fixed layout; 0: the type has variable length and no such layout
  uint32_t fixed_table_size;  // of its root table, without the gap before the vtable
  uint32_t compact_least;     // the compact layout of a record of zeros
  uint32_t compact_most;      // of a record without zeros; 0: there is no bound
  std::span<const SlotInfo> slots;
  Operations library;

  bool is_fixed() const { return fixed_length != 0; }
  std::string name() const { return std::string(package) + '.' + std::string(message); }
  std::string prefix() const { return std::string(package) + '_' + std::string(message); }
};

// All types, package by package in the order of registration.
std::span<const Type *const> types();

// By package.message, by the C record's name, or by 0x and the message ID; null when there is none.
const Type *find(std::string_view name);

// What may be meant by a name that is none: also one without its package.
Suggestion suggested_type(std::string_view name);

// u16, u8[3], bytes, table(tlv), vector(tlv)
std::string kind_text(Kind kind, uint32_t width, uint32_t elements, std::string_view inner);
std::string kind_text(const SlotInfo &slot);

}  // namespace drix::describe
