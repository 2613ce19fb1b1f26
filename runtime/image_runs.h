// Writing, recognising and reading images.
//
// An image is cut into runs of constant bytes and runs of bytes that come from the record, so that each operation is a
// few copies or compares of constant size.
#pragma once

#include <array>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "runtime/image.h"
#include "runtime/wire.h"

namespace drix {

// Compares byte strings of constant size without a branch until the end.
class Difference {
 public:
  // By the widest words that the strings hold. What is left over is compared with the last whole word, which overlaps
  // the one before: putting a word together from smaller pieces takes several times as long.
  template <std::size_t size, std::unsigned_integral Word = uint64_t>
  [[gnu::always_inline]] void add(const uint8_t *a, const uint8_t *b) {
    if constexpr (size >= sizeof(Word)) {
      [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
        (add_word<Word>(a + I * sizeof(Word), b + I * sizeof(Word)), ...);
      }
      (std::make_index_sequence<size / sizeof(Word)>());
      constexpr std::size_t kLast = size - sizeof(Word);
      if constexpr (size % sizeof(Word) != 0) add_word<Word>(a + kLast, b + kLast);
    } else if constexpr (size >= sizeof(uint32_t)) {
      add<size, uint32_t>(a, b);
    } else if constexpr (size >= sizeof(uint16_t)) {
      add<size, uint16_t>(a, b);
    } else {
      add<size, uint8_t>(a, b);
    }
  }
  bool none() const { return bits_ == 0; }

 private:
  template <std::unsigned_integral Word>
  [[gnu::always_inline]] void add_word(const uint8_t *a, const uint8_t *b) {
    bits_ |= static_cast<Word>(load<Word>(a) ^ load<Word>(b));
  }
  uint64_t bits_ = 0;
};

// Bytes of one role that stand together; values also stand together in the record.
struct Run {
  std::size_t at;
  std::size_t size;
  std::size_t source;
  std::size_t width;  // of the elements
};

// The constants alone, which are all that is left of an image in the library.
template <const auto &image>
inline constexpr auto kConstants = image.bytes;

template <const auto &image, Role role>
struct Runs {
  // Elements of different width join only where they need no byte swaps.
  static constexpr bool starts_at(std::size_t at) {
    if (image.roles[at] != role) return false;
    if (at == 0 || image.roles[at - 1] != role) return true;
    if (role != Role::value) return false;
    return image.source[at] != image.source[at - 1] + 1 ||
           (!kHostIsLittleEndian && image.width[at] != image.width[at - 1]);
  }

  static constexpr std::size_t count = [] {
    std::size_t runs = 0;
    for (std::size_t at = 0; at < image.roles.size(); ++at) runs += starts_at(at);
    return runs;
  }();

  static constexpr std::array<Run, count> list = [] {
    std::array<Run, count> runs{};
    std::size_t found = 0;
    for (std::size_t at = 0; at < image.roles.size(); ++at) {
      if (starts_at(at)) runs[found++] = {at, 0, image.source[at], image.width[at]};
      if (image.roles[at] == role) ++runs[found - 1].size;
    }
    return runs;
  }();
};

// Calls visit.operator()<run>() for each run of a role.
template <const auto &image, Role role, class Visit>
[[gnu::always_inline]] inline void for_each_run(Visit visit) {
  using List = Runs<image, role>;
  [&]<std::size_t... I>(std::index_sequence<I...>) __attribute__((always_inline)) {
    (visit.template operator()<List::list[I]>(), ...);
  }
  (std::make_index_sequence<List::count>());
}

// Copies a run of values from record to image or back.
template <Run run>
inline void copy_values(void *to, const void *from) {
  if constexpr (kHostIsLittleEndian || run.width == 1) {
    std::memcpy(to, from, run.size);
  } else if constexpr (run.width == 2) {
    copy_elements<uint16_t>(to, from, run.size / 2);
  } else {
    copy_elements<uint32_t>(to, from, run.size / 4);
  }
}

// Writes an image of the record.
template <const auto &image>
inline void write_image(uint8_t *__restrict out, const void *__restrict record) {
  const auto *from = static_cast<const uint8_t *>(record);
  for_each_run<image, Role::constant>(
      [=]<Run run>() { std::memcpy(out + run.at, kConstants<image>.data() + run.at, run.size); });
  for_each_run<image, Role::value>([=]<Run run>() { copy_values<run>(out + run.at, from + run.source); });
}

// Tells whether the bytes at in, as many as the image has, equal it everywhere but in the values.
template <const auto &image>
inline bool matches_image(const uint8_t *in) {
  Difference difference;
  for_each_run<image, Role::constant>(
      [&]<Run run>() { difference.add<run.size>(in + run.at, kConstants<image>.data() + run.at); });
  return difference.none();
}

// Reads the values of a matching image into the record.
template <const auto &image>
inline void read_image(void *__restrict record, const uint8_t *__restrict in) {
  auto *to = static_cast<uint8_t *>(record);
  for_each_run<image, Role::value>([=]<Run run>() { copy_values<run>(to + run.source, in + run.at); });
}

// Bytes from an image's start to the last one that its reader looks at.
template <const auto &image>
inline constexpr std::size_t kReadSize = [] {
  std::size_t size = image.roles.size();
  while (image.roles[size - 1] == Role::unwritten) --size;
  return size;
}();

}  // namespace drix
