// What a message type has besides its record: names, identifier, package. Text and constants only.
#pragma once

#include <cstdint>

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
  uint32_t prefix_length;  // of package name, underscore and message name, with which each log name starts
  const char *log_names;   // one behind the other: of hundred types, fewer addresses to relocate

  const char *pack_name() const { return log_names; }
  const char *unpack_name() const { return pack_name() + prefix_length + sizeof "_pack"; }
  const char *non_root_name() const { return unpack_name() + prefix_length + sizeof "_unpack"; }  // inside another type
  const char *release_name() const { return non_root_name() + prefix_length + sizeof "_unpack_non_root"; }
};

// The constants of message type R; each package's list specialises it.
template <class R>
inline constexpr MessageInfo kMessage = [] {
  static_assert(sizeof(R) == 0, "this record is used as a message type, but its package's list leaves it out");
  return MessageInfo{};
}();

}  // namespace drix
