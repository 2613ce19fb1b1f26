#include <algorithm>
#include <array>
#include <charconv>

#include "describe/type.h"
#include "drix_message.hpp"
#include "runtime/encode.h"

namespace drix::describe {
namespace {

template <class R>
constexpr Operations kOperations = {
    .pack = [](const void *record, uint8_t *buffer,
               uint32_t *length) { return message<R>::pack(static_cast<const R *>(record), buffer, length); },
    .unpack = [](const uint8_t *buffer, uint32_t length,
                 void *record) { return message<R>::unpack(buffer, length, static_cast<R *>(record)); },
    .free_unpacked = [](void *record) { message<R>::free_unpacked(static_cast<R *>(record)); },
    .sendsingle =
        [](uint32_t handle, const void *record, uint32_t count, uint32_t destination) {
          return message<R>::sendsingle(handle, static_cast<const R *>(record), count, destination);
        },
};

template <class R>
struct Description {
  static_assert(sizeof(R) <= UINT16_MAX, "members' places are kept in 16 bits");

  static constexpr std::array<SlotInfo, kSlots<R>> slots = [] {
    std::array<SlotInfo, kSlots<R>> list{};
    for_each_slot<R>([&]<class S>(S) constexpr {
      SlotInfo &slot = list[S::index];
      slot.kind = S::kind;
      slot.elements = static_cast<uint16_t>(S::elements);
      slot.member = static_cast<uint16_t>(S::offset);
      slot.length_member = static_cast<uint16_t>(S::length_offset);
      if constexpr (S::kind == Kind::scalar) slot.width = sizeof(typename S::Type);
      if constexpr (S::kind == Kind::array) slot.width = sizeof(typename S::Element);
      if constexpr (S::kind == Kind::table) slot.inner = &Description<typename S::Type>::type;
      if constexpr (S::kind == Kind::vector) slot.inner = &Description<typename S::Element>::type;
    });
    return list;
  }();

  static constexpr Type type = [] {
    Type made = {.package = message<R>::package,
                 .message = message<R>::name + sizeof message<R>::package,  // behind the full stop
                 .id = message<R>::id,
                 .record_size = sizeof(R),
                 .fixed_length = 0,
                 .fixed_table_size = 0,
                 .compact_least = kWord + least_nested_size<R>(),
                 .compact_most = 0,
                 .slots = slots,
                 .library = kOperations<R>};
    if constexpr (kFixedLength<R>) {
      made.fixed_length = fixed_length<R>();
      made.fixed_table_size = fixed_table_size<R>();
      made.compact_most = kWord + full_size<R>();
    }
    return made;
  }();
};

#define ADDRESS_OF(p, m) &Description<p##_##m>::type,
constexpr const Type *kTypes[] = {FIB6_CFG_MESSAGES(ADDRESS_OF) KORBROKERFIB6_MESSAGES(ADDRESS_OF)
                                      FIB6SYNC_MESSAGES(ADDRESS_OF)};
#undef ADDRESS_OF

}  // namespace

std::span<const Type *const> types() { return kTypes; }

const Type *find(std::string_view name) {
  uint32_t id = 0;
  bool by_id = name.starts_with("0x") || name.starts_with("0X");
  if (by_id) {
    const auto [end, error] = std::from_chars(name.data() + 2, name.data() + name.size(), id, 16);
    if (error != std::errc() || end != name.data() + name.size()) return nullptr;
  }
  const auto found = std::find_if(std::begin(kTypes), std::end(kTypes), [&](const Type *type) {
    return by_id ? type->id == id : type->name() == name || type->prefix() == name;
  });
  return found == std::end(kTypes) ? nullptr : *found;
}

Suggestion suggested_type(std::string_view name) {
  Suggestion suggestion(name);
  for (const Type *type : kTypes) {
    suggestion.consider(type->name());
    suggestion.consider(type->message, type->name());
  }
  return suggestion;
}

std::string kind_text(Kind kind, uint32_t width, uint32_t elements, std::string_view inner) {
  const std::string scalar = "u" + std::to_string(8 * width);
  switch (kind) {
    case Kind::scalar:
      return scalar;
    case Kind::array:
      return scalar + '[' + std::to_string(elements) + ']';
    case Kind::bytes:
      return "bytes";
    case Kind::table:
      return "table(" + std::string(inner) + ')';
    case Kind::vector:
      break;
  }
  return "vector(" + std::string(inner) + ')';
}

std::string kind_text(const SlotInfo &slot) {
  return kind_text(slot.kind, slot.width, slot.elements, slot.inner == nullptr ? "" : slot.inner->message);
}

}  // namespace drix::describe
