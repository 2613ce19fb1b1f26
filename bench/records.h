// Records to measure with, and images of them.
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "bench/subject.h"
#include "runtime/slots.h"

namespace bench {

using drix::Kind;

// Records whose every member is random; vectors have the given number of elements, byte strings as many bytes. Scalars
// are zero with the given probability, each by itself: a shape of its own for each table.
class Generator {
 public:
  Generator(uint32_t elements, double zeros) : elements_(elements), zeros_(zeros) {}

  template <class R>
  void fill(R &record) {
    std::memset(static_cast<void *>(&record), 0, sizeof record);
    fill_members(record, [this](std::size_t) { return std::bernoulli_distribution(zeros_)(random_); });
  }

  // Which scalars are zero, as many of them as the probability says.
  template <class R>
  using Shape = std::array<bool, drix::kSlots<R>>;

  template <class R>
  Shape<R> draw_shape() {
    std::vector<std::size_t> scalars;
    drix::for_each_slot<R>([&](auto slot) {
      if (slot.kind == Kind::scalar) scalars.push_back(slot.index);
    });
    std::shuffle(scalars.begin(), scalars.end(), random_);
    const double share = static_cast<double>(scalars.size()) * zeros_ + std::uniform_real_distribution<>()(random_);
    Shape<R> shape{};
    for (std::size_t i = 0; i < static_cast<std::size_t>(share); ++i) shape[scalars[i]] = true;
    return shape;
  }

  // Fills a record that has one of the shapes, drawn at random.
  template <class R>
  void fill(R &record, const std::vector<Shape<R>> &shapes) {
    const Shape<R> &shape = shapes[std::uniform_int_distribution<std::size_t>(0, shapes.size() - 1)(random_)];
    std::memset(static_cast<void *>(&record), 0, sizeof record);
    fill_members(record, [&](std::size_t slot) { return shape[slot]; });
  }

 private:
  template <class R, class IsZero>
  void fill_members(R &record, IsZero is_zero) {
    drix::for_each_slot<R>([&]<class S>(S) {
      auto &value = S::value(record);
      if constexpr (S::kind == Kind::scalar) {
        value = is_zero(S::index) ? 0 : static_cast<typename S::Type>(random_() | 1);
      } else if constexpr (S::kind == Kind::array) {
        for (auto &element : value) element = static_cast<typename S::Element>(random_());
      } else if constexpr (S::kind == Kind::table) {
        fill_members(value, is_zero);
      } else {
        value = allocate<typename S::Element>(elements_);
        if constexpr (S::kind == Kind::bytes) {
          S::length(record) = elements_;
          std::memset(value, 'v', elements_);
        } else {
          S::count(record) = elements_;
          for (uint32_t i = 0; i < elements_; ++i) fill_members(value[i], is_zero);
        }
      }
    });
  }

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

// Where all images are written; nothing that is measured is longer.
inline constexpr std::size_t kRoom = 130'000'000;
inline uint8_t *output() {
  static const auto block = std::make_unique_for_overwrite<uint8_t[]>(kRoom);
  return block.get();
}

// One encoding of each record of a set, one behind the other, as the order of a set is the order in which it is used.
class Images {
 public:
  struct Image {
    const uint8_t *start;
    uint32_t size;
  };

  // write() writes the next image to output() and returns its size.
  template <class Write>
  void add(Write write) {
    const std::size_t size = write();
    require(size != 0 && size <= kRoom, "a record is not written");
    places_.emplace_back(bytes_.size(), static_cast<uint32_t>(size));
    bytes_.insert(bytes_.end(), output(), output() + (size + 7) / 8 * 8);
  }

  Image operator[](std::size_t i) const { return {bytes_.data() + places_[i].first, places_[i].second}; }

 private:
  std::vector<uint8_t> bytes_;
  std::vector<std::pair<std::size_t, uint32_t>> places_;
};

[[gnu::noinline]] inline void copy(void *to, const void *from, std::size_t size) { std::memcpy(to, from, size); }

template <class R>
std::size_t pack(const R &record) {
  auto length = static_cast<uint32_t>(kRoom);
  return drix::message<R>::pack(&record, output(), &length) == 0 ? length : 0;
}

// Ends the program unless the image decodes to the record.
template <class R>
void require_decodes(const Images::Image &image, const R &record) {
  R decoded;
  drix::message<R>::unpack(image.start, image.size, &decoded);
  require(equal(record, decoded), std::string(drix::message<R>::name) + ": an image does not decode to its record");
  drix::message<R>::free_unpacked(&decoded);
}

}  // namespace bench
