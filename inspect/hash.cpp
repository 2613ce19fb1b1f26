#include "inspect/hash.h"

#include <bit>
#include <cstring>
#include <random>

namespace drix::inspect {
namespace {

uint64_t random_word() {
  std::random_device device;
  return uint64_t{device()} << 32 | device();
}

// Odd, with as many ones as zeros.
constexpr uint64_t kFactors[] = {0x9E3779B97F4A7C15, 0xC2B2AE3D27D4EB4F};

uint64_t scatter(uint64_t bits) {
  bits = (bits ^ bits >> 30) * 0xBF58476D1CE4E5B9;
  bits = (bits ^ bits >> 27) * 0x94D049BB133111EB;
  return bits ^ bits >> 31;
}

}  // namespace

// Each step can be undone, so what differs in one step only has different hashes.
Hash hash(std::string_view bytes, uint64_t kind) {
  static const uint64_t seeds[] = {random_word(), random_word()};
  uint64_t a = seeds[0] ^ kind * kFactors[0];
  uint64_t b = seeds[1] ^ bytes.size() * kFactors[1];
  const auto step = [&](const char *from, std::size_t size) {
    uint64_t words[2] = {};
    std::memcpy(words, from, size);
    a = std::rotl((a ^ words[0]) * kFactors[0], 31) + b;
    b = std::rotl((b ^ words[1]) * kFactors[1], 29) ^ a;
  };
  std::size_t at = 0;
  for (; at + 16 <= bytes.size(); at += 16) step(bytes.data() + at, 16);
  step(bytes.data() + at, bytes.size() - at);
  a = scatter(a ^ std::rotl(b, 17));
  return {a, scatter(b + a)};
}

}  // namespace drix::inspect
