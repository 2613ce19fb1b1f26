// Hashes of bytes that may be hostile: each process has its own.
#pragma once

#include <cstdint>
#include <string_view>

namespace drix::inspect {

struct Hash {
  uint64_t high, low;
  bool operator==(const Hash &) const = default;
};

// Two different byte strings have the same with a probability of 2^-100 and less, by accident.
Hash hash(std::string_view bytes, uint64_t kind = 0);

struct Hasher {
  std::size_t operator()(std::string_view bytes) const { return static_cast<std::size_t>(hash(bytes).low); }
};

}  // namespace drix::inspect
