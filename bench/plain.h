// What a careful programmer writes without this library, as the measure for it: every member in order, big-endian,
// packed without a gap; on reading, a length check before each.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "runtime/slots.h"
#include "runtime/wire.h"

namespace bench::plain {

template <class T>
inline T swapped(T value) {
  if constexpr (!drix::kHostIsLittleEndian || sizeof(T) == 1) return value;
  if constexpr (sizeof(T) == 2) return static_cast<T>(__builtin_bswap16(value));
  if constexpr (sizeof(T) == 4) return static_cast<T>(__builtin_bswap32(value));
}

template <class T>
inline uint8_t *put(uint8_t *out, T value) {
  value = swapped(value);
  std::memcpy(out, &value, sizeof(T));
  return out + sizeof(T);
}

class Reader {
 public:
  Reader(const uint8_t *in, std::size_t left) : in_(in), left_(left) {}

  template <class T>
  [[gnu::always_inline]] bool get(T *values, std::size_t count) {
    if (left_ < count * sizeof(T)) return false;
    for (std::size_t i = 0; i < count; ++i) {
      T value;
      std::memcpy(&value, in_ + i * sizeof(T), sizeof(T));
      values[i] = swapped(value);
    }
    in_ += count * sizeof(T);
    left_ -= count * sizeof(T);
    return true;
  }

 private:
  const uint8_t *in_;
  std::size_t left_;
};

template <class R>
[[gnu::always_inline]] inline uint8_t *write_members(uint8_t *out, const R &record) {
  drix::for_each_slot<R>([&]<class S>(S) {
    const auto &value = S::value(record);
    if constexpr (S::kind == drix::Kind::scalar) {
      out = put(out, value);
    } else if constexpr (S::kind == drix::Kind::array) {
      for (const auto element : value) out = put(out, element);
    } else if constexpr (S::kind == drix::Kind::table) {
      out = write_members(out, value);
    } else if constexpr (S::kind == drix::Kind::bytes) {
      out = put(out, S::length(record));
      std::memcpy(out, value, S::length(record));
      out += S::length(record);
    } else {
      out = put(out, S::count(record));
      for (uint32_t i = 0; i < S::count(record); ++i) out = write_members(out, value[i]);
    }
  });
  return out;
}

template <class R>
[[gnu::always_inline]] inline bool read_members(Reader &in, R &record) {
  return drix::all_slots<R>([&]<class S>(S) {
    auto &value = S::value(record);
    if constexpr (S::kind == drix::Kind::scalar) {
      return in.get(&value, 1);
    } else if constexpr (S::kind == drix::Kind::array) {
      return in.get(value, S::elements);
    } else if constexpr (S::kind == drix::Kind::table) {
      return read_members(in, value);
    } else {
      uint32_t count;
      if (!in.get(&count, 1)) return false;
      using Element = typename S::Element;
      value = static_cast<Element *>(std::malloc(count * sizeof(Element)));
      if (value == nullptr) return false;
      if constexpr (S::kind == drix::Kind::bytes) {
        S::length(record) = count;
        return in.get(value, count);
      } else {
        S::count(record) = count;
        for (uint32_t i = 0; i < count; ++i) {
          if (!read_members(in, value[i])) return false;
        }
        return true;
      }
    }
  });
}

// Returns the number of bytes written.
template <class R>
[[gnu::noinline, gnu::flatten]] std::size_t write(uint8_t *out, const R *record) {
  return static_cast<std::size_t>(write_members(out, *record) - out);
}

template <class R>
[[gnu::noinline, gnu::flatten]] bool read(const uint8_t *in, std::size_t size, R *record) {
  Reader reader(in, size);
  return read_members(reader, *record);
}

// Gives back what reading allocated.
template <class R>
void release(R *record) {
  drix::for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == drix::Kind::bytes || S::kind == drix::Kind::vector) std::free(S::value(*record));
  });
}

}  // namespace bench::plain
