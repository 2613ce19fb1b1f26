// The bytes of a record that belong to no member. Decoding clears them on every path, so that records can be compared
// and handed on as bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include "runtime/slots.h"

namespace drix {

struct Gap {
  std::size_t at;
  std::size_t size;
};

// The gaps between the members of R. Those inside an embedded record are its own.
template <class R>
struct Padding {
  static constexpr std::array<bool, sizeof(R)> used = [] {
    std::array<bool, sizeof(R)> bytes{};
    const auto mark = [&](std::size_t at, std::size_t size) {
      for (std::size_t i = 0; i < size; ++i) bytes[at + i] = true;
    };
    for_each_slot<R>([&]<class S>(S) {
      mark(S::offset, sizeof(typename S::Type));
      if (S::kind == Kind::bytes || S::kind == Kind::vector) mark(S::length_offset, sizeof(uint32_t));
    });
    return bytes;
  }();

  static constexpr bool starts_at(std::size_t at) { return !used[at] && (at == 0 || used[at - 1]); }

  static constexpr std::size_t count = [] {
    std::size_t gaps = 0;
    for (std::size_t at = 0; at < sizeof(R); ++at) gaps += starts_at(at);
    return gaps;
  }();

  static constexpr std::array<Gap, count> gaps = [] {
    std::array<Gap, count> list{};
    std::size_t found = 0;
    for (std::size_t at = 0; at < sizeof(R); ++at) {
      if (starts_at(at)) list[found++] = {at, 0};
      if (!used[at]) ++list[found - 1].size;
    }
    return list;
  }();
};

template <class R>
[[gnu::always_inline]] inline void clear_own_padding(R &record) {
  auto *const bytes = reinterpret_cast<uint8_t *>(&record);
  const auto clear = [=]<Gap gap>() { std::memset(bytes + gap.at, 0, gap.size); };
  [&]<std::size_t... I>(std::index_sequence<I...>) { (clear.template operator()<Padding<R>::gaps[I]>(), ...); }
  (std::make_index_sequence<Padding<R>::count>());
}

// Those of embedded records too.
template <class R>
[[gnu::always_inline]] inline void clear_padding(R &record) {
  clear_own_padding(record);
  for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::table) clear_padding(S::value(record));
  });
}

}  // namespace drix
