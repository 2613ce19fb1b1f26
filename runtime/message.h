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
  const char *pack_name;  // log names of the type's operations
  const char *unpack_name;
  const char *non_root_name;  // of decoding the type inside another one
  const char *release_name;
};

// The constants of message type R; each package's list specialises it.
template <class R>
inline constexpr MessageInfo kMessage = {};

}  // namespace drix
