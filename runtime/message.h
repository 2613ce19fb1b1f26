// What a message type has besides its record: names, identifier, package. Text and constants only.
#pragma once

#include <cstdint>
#include <string_view>

#include "runtime/services.h"

namespace drix {

// The binding units of a package, one for each side.
struct PackageServices {
  Services decoding;
  Services encoding;
};

struct MessageInfo {
  PackageServices *services;
  uint32_t id;
  const char *pack_name;  // log names of the type's operations
  const char *unpack_name;
  const char *non_root_name;  // of decoding the type inside another one
  const char *release_name;
};

// The constants of message type R; each package's list specialises it.
template <class R>
inline constexpr MessageInfo kMessage = {};

// 32-bit FNV-1a. The bus tells message types apart by the hash of "package.message".
constexpr uint32_t message_id(std::string_view name) {
  uint32_t hash = 0x811C9DC5;
  for (const char c : name) {
    hash ^= static_cast<uint8_t>(c);
    hash *= 0x01000193;
  }
  return hash;
}

}  // namespace drix
