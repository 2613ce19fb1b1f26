// What is measured: message types with their exported operations, and records to measure them with.
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "fib6Sync.h"
#include "fib6_cfg.h"
#include "korBrokerFib6.h"
#include "runtime/slots.h"

namespace bench {

using drix::Kind;

// The exported operations of the record type R under the name of its message.
template <class R>
struct Subject;

#define BENCH_SUBJECT(package, message)                                   \
  template <>                                                             \
  struct Subject<package##_##message> {                                   \
    static constexpr const char *name = #package "." #message;            \
    static constexpr auto pack = package##_##message##__pack;             \
    static constexpr auto unpack = package##_##message##__unpack;         \
    static constexpr auto release = package##_##message##_free__unpacked; \
    static constexpr auto send_batch = package##_##message##__sendbatch;  \
  };

BENCH_SUBJECT(fib6Sync, ipv6FwdUpdateMsg)
BENCH_SUBJECT(fib6Sync, srv6SrList)
BENCH_SUBJECT(fib6_cfg, query_comm_param)
BENCH_SUBJECT(fib6_cfg, query_fib6_item)
BENCH_SUBJECT(korBrokerFib6, ipv6Fwd)
BENCH_SUBJECT(korBrokerFib6, ipv6FwdUpdateMsg)
BENCH_SUBJECT(korBrokerFib6, nhp6UpdateMsg)
#undef BENCH_SUBJECT

// Ends the program: figures of an operation that does not work are worth nothing.
inline void require(bool condition, const std::string &what) {
  if (!condition) throw std::runtime_error(what);
}

// Records whose every member is random; vectors have the given number of elements, byte strings as many bytes. Scalars
// are zero with the given probability.
class Generator {
 public:
  Generator(uint32_t elements, double zeros) : elements_(elements), zeros_(zeros) {}

  template <class R>
  void fill(R &record) {
    drix::for_each_slot<R>([&]<class S>(S) {
      auto &value = S::value(record);
      if constexpr (S::kind == Kind::scalar) {
        value = static_cast<typename S::Type>(random_()) | 1;
        if (std::bernoulli_distribution(zeros_)(random_)) value = 0;
      } else if constexpr (S::kind == Kind::array) {
        for (auto &element : value) element = static_cast<typename S::Element>(random_());
      } else if constexpr (S::kind == Kind::table) {
        fill(value);
      } else {
        value = allocate<typename S::Element>(elements_);
        if constexpr (S::kind == Kind::bytes) {
          S::length(record) = elements_;
          std::memset(value, 'v', elements_);
        } else {
          S::count(record) = elements_;
          for (uint32_t i = 0; i < elements_; ++i) fill(value[i]);
        }
      }
    });
  }

 private:
  template <class T>
  T *allocate(std::size_t count) {
    const std::shared_ptr<T[]> block(new T[count]());
    blocks_.push_back(block);
    return block.get();
  }

  uint32_t elements_;
  double zeros_;
  std::mt19937 random_{1};
  std::vector<std::shared_ptr<void>> blocks_;  // what the records point to
};

// Whether two records mean the same.
template <class R>
bool equal(const R &a, const R &b) {
  return drix::all_slots<R>([&]<class S>(S) {
    const auto &x = S::value(a);
    const auto &y = S::value(b);
    if constexpr (S::kind == Kind::scalar) {
      return x == y;
    } else if constexpr (S::kind == Kind::array) {
      return std::memcmp(x, y, sizeof x) == 0;
    } else if constexpr (S::kind == Kind::table) {
      return equal(x, y);
    } else if constexpr (S::kind == Kind::bytes) {
      return S::length(a) == S::length(b) && std::memcmp(x, y, S::length(a)) == 0;
    } else {
      if (S::count(a) != S::count(b)) return false;
      for (uint32_t i = 0; i < S::count(a); ++i) {
        if (!equal(x[i], y[i])) return false;
      }
      return true;
    }
  });
}

// Bytes that a record takes with all that it points to.
template <class R>
std::size_t memory_of(const R &record) {
  std::size_t size = sizeof record;
  drix::for_each_slot<R>([&]<class S>(S) {
    if constexpr (S::kind == Kind::bytes) size += S::length(record);
    if constexpr (S::kind == Kind::vector) size += S::count(record) * sizeof(typename S::Element);
    if constexpr (S::kind == Kind::table) size += memory_of(S::value(record)) - sizeof(typename S::Type);
  });
  return size;
}

using Image = std::vector<uint8_t>;

template <class R>
Image packed(const R &record) {
  Image image(memory_of(record) * 4 + 1000);
  auto length = static_cast<uint32_t>(image.size());
  require(Subject<R>::pack(&record, image.data(), &length) == 0, std::string(Subject<R>::name) + ": does not pack");
  image.resize(length);
  image.shrink_to_fit();
  return image;
}

// Ends the program unless the image decodes to the record.
template <class R>
void require_decodes(const Image &image, const R &record) {
  R decoded;
  Subject<R>::unpack(image.data(), static_cast<uint32_t>(image.size()), &decoded);
  require(equal(record, decoded), std::string(Subject<R>::name) + ": an image does not decode to its record");
  Subject<R>::release(&decoded);
}

}  // namespace bench
