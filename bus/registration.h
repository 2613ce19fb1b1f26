// What a package tells the bus about its message types.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "drix_bus.h"

namespace drix {

struct Registration {
  uint32_t id;
  DrixDecodeFunc decode;
  DrixReleaseFunc release;
};

// Registers types in order until the bus refuses one; returns the bus's last result.
int32_t register_messages(std::span<const Registration> messages);

template <std::size_t N>
constexpr bool ids_are_unique(const uint32_t (&ids)[N]) {
  for (std::size_t i = 0; i < N; ++i) {
    for (std::size_t j = 0; j < i; ++j) {
      if (ids[i] == ids[j]) return false;
    }
  }
  return true;
}

}  // namespace drix
