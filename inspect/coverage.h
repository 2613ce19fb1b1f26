// Which bytes of a buffer something stands in.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace drix::inspect {

class Coverage {
 public:
  explicit Coverage(uint32_t length);
  Coverage(const Coverage &) = delete;
  Coverage &operator=(const Coverage &) = delete;

  // Of bytes inside the buffer. Most things stand behind the last one, so they are collected first.
  void add(uint32_t at, uint32_t size) {
    if (at != run_end_) {
      mark(run_start_, run_end_);
      run_start_ = at;
    }
    run_end_ = at + size;
  }

  // The same for what stands apart from the things before and after it.
  void add_apart(uint32_t at, uint32_t size) { mark(at, at + size); }

  // Calls visit(at, size) for each run of bytes in which nothing stands, in order.
  template <class Visit>
  void for_each_gap(Visit visit) {
    mark(run_start_, run_end_);
    run_start_ = run_end_;
    for (uint32_t at = next(0, false); at < length_;) {
      const uint32_t end = next(at, true);
      visit(at, end - at);
      at = next(end, false);
    }
  }

 private:
  static constexpr uint32_t kBits = 64;

  void mark(uint32_t start, uint32_t end) {
    if (start == end) return;
    const uint32_t first = start / kBits;
    const uint32_t last = (end - 1) / kBits;
    const uint64_t from_start = ~uint64_t{0} << start % kBits;
    const uint64_t to_end = ~uint64_t{0} >> (kBits - 1 - (end - 1) % kBits);
    words_[first] |= first == last ? from_start & to_end : from_start;
    if (first != last) mark_rest(first + 1, last, to_end);
  }

  void mark_rest(uint32_t first, uint32_t last, uint64_t to_end);
  uint32_t next(uint32_t from, bool covered) const;  // the next byte that is covered or not, or the length

  uint32_t length_;
  uint32_t run_start_ = 0;
  uint32_t run_end_ = 0;
  std::array<uint64_t, 12> few_ = {};  // enough for most buffers
  std::vector<uint64_t> many_;
  uint64_t *words_;
};

}  // namespace drix::inspect
