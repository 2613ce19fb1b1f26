#include "inspect/coverage.h"

#include <algorithm>
#include <bit>

namespace drix::inspect {

Coverage::Coverage(uint32_t length) : length_(length), words_(few_.data()) {
  const std::size_t words = length / kBits + 1;
  if (words <= few_.size()) return;
  many_.resize(words);
  words_ = many_.data();
}

void Coverage::mark_rest(uint32_t first, uint32_t last, uint64_t to_end) {
  for (; first < last; ++first) words_[first] = ~uint64_t{0};
  words_[last] |= to_end;
}

uint32_t Coverage::next(uint32_t from, bool covered) const {
  if (from >= length_) return length_;
  const uint64_t flip = covered ? 0 : ~uint64_t{0};
  uint32_t word = from / kBits;
  uint64_t bits = (words_[word] ^ flip) & (~uint64_t{0} << from % kBits);
  while (bits == 0) {
    if (++word > (length_ - 1) / kBits) return length_;
    bits = words_[word] ^ flip;
  }
  return std::min(length_, word * kBits + static_cast<uint32_t>(std::countr_zero(bits)));
}

}  // namespace drix::inspect
