#include "inspect/coverage.h"

#include <algorithm>
#include <bit>

namespace drix::inspect {

Coverage::Coverage(uint32_t length) : length_(length) {
  const std::size_t words = length / kBits + 1;
  if (words > few_.size()) {
    many_.resize(words);
    words_ = many_.data();
  } else {
    std::fill_n(few_.begin(), words, 0);
    words_ = few_.data();
  }
}

void Coverage::mark(uint32_t start, uint32_t end) {
  if (start == end) return;
  const uint32_t first = start / kBits;
  const uint32_t last = (end - 1) / kBits;
  const uint64_t from_start = ~uint64_t{0} << start % kBits;
  const uint64_t to_end = ~uint64_t{0} >> (kBits - 1 - (end - 1) % kBits);
  if (first == last) {
    words_[first] |= from_start & to_end;
    return;
  }
  words_[first] |= from_start;
  std::fill(words_ + first + 1, words_ + last, ~uint64_t{0});
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
