#include "soak_record.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory_resource>

#include "fib6_cfg.h"
#include "korBrokerFib6.h"
#include "runtime/slots.h"

namespace soak {
namespace {

using drix::Kind;

// SplitMix64, since every record has a generator of its own and this one costs nothing to set up.
class Random {
 public:
  // what: a number of its own for everything that is drawn in a round.
  Random(Round round, uint32_t what) : state_(uint64_t{round.seed} << 32 | round.number) { state_ = draw() + what; }

  uint64_t draw() {
    state_ += 0x9E3779B97F4A7C15;
    uint64_t mixed = state_;
    mixed = (mixed ^ mixed >> 30) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ mixed >> 27) * 0x94D049BB133111EB;
    return mixed ^ mixed >> 31;
  }

  uint32_t below(uint32_t limit) { return static_cast<uint32_t>((draw() >> 32) * limit >> 32); }

 private:
  uint64_t state_;
};

// A record with random content, and what its pointers point to.
template <class R>
class RandomRecord {
 public:
  RandomRecord(Round round, uint32_t id) : random_(round, id), zeros_in_4_(random_.below(4)) { fill(record_); }
  RandomRecord(const RandomRecord &) = delete;
  RandomRecord &operator=(const RandomRecord &) = delete;

  const R &get() const { return record_; }

 private:
  // Zeros are left out of the compact layout, and tables without any are decoded on a path of their own: both happen.
  template <class Number>
  void fill_number(Number &number) {
    const uint64_t drawn = random_.draw();
    number = drawn % 4 < zeros_in_4_ ? Number{0} : static_cast<Number>(drawn >> 32);
  }

  template <class Table>
  void fill(Table &table) {
    drix::for_each_slot<Table>([&]<class S>(S) {
      auto &value = S::value(table);
      if constexpr (S::kind == Kind::scalar) {
        fill_number(value);
      } else if constexpr (S::kind == Kind::array) {
        for (auto &element : value) fill_number(element);
      } else if constexpr (S::kind == Kind::bytes) {
        const bool is_long = random_.below(8) == 0;
        for (uint8_t &byte : allocate(value, S::length(table), random_.below(is_long ? 1024 : 16))) fill_number(byte);
      } else if constexpr (S::kind == Kind::table) {
        fill(value);
      } else {
        for (auto &element : allocate(value, S::count(table), random_.below(5))) fill(element);
      }
    });
  }

  template <class Element>
  std::span<Element> allocate(Element *&elements, uint32_t &count, uint32_t wanted) {
    elements = std::pmr::polymorphic_allocator<>(&memory_).allocate_object<Element>(wanted);
    count = wanted;
    return {elements, wanted};
  }

  std::array<std::byte, 4096> storage_;  // enough for nearly all records
  std::pmr::monotonic_buffer_resource memory_{storage_.data(), storage_.size()};
  Random random_;
  uint32_t zeros_in_4_;
  R record_ = {};
};

// A record that its decoder gave up has counts without elements.
template <class Element>
std::span<const Element> elements_of(const Element *elements, uint32_t count) {
  return {elements, elements == nullptr ? 0 : count};
}

// The first member in which two tables differ, or empty.
template <class Table>
std::string first_difference(const Table &sent, const Table &received) {
  std::string difference;
  static_cast<void>(drix::all_slots<Table>([&]<class S>(S) {
    const auto &a = S::value(sent);
    const auto &b = S::value(received);
    const auto differs = [&](const std::string &within) {
      difference = "f" + std::to_string(S::index) + within;
      return false;
    };
    if constexpr (S::kind == Kind::scalar) {
      return a == b || differs("");
    } else if constexpr (S::kind == Kind::array) {
      return std::ranges::equal(a, b) || differs("");
    } else if constexpr (S::kind == Kind::bytes) {
      if (S::length(sent) != S::length(received)) return differs("Len");
      return std::ranges::equal(elements_of(a, S::length(sent)), elements_of(b, S::length(received))) || differs("");
    } else if constexpr (S::kind == Kind::table) {
      const std::string within = first_difference(a, b);
      return within.empty() || differs("." + within);
    } else {
      if (S::count(sent) != S::count(received)) return differs("Count");
      const std::span sent_elements = elements_of(a, S::count(sent));
      const std::span received_elements = elements_of(b, S::count(received));
      if (sent_elements.size() != received_elements.size()) return differs("");
      for (std::size_t i = 0; i < sent_elements.size(); ++i) {
        const std::string within = first_difference(sent_elements[i], received_elements[i]);
        if (!within.empty()) return differs("[" + std::to_string(i) + "]." + within);
      }
      return true;
    }
  }));
  return difference;
}

template <class R, uint32_t kId, int32_t (*kSendmsg)(uint32_t, const R *, uint32_t)>
constexpr Message make_message(const char *name) {
  return {
      .name = name,
      .id = kId,
      .send =
          [](Channel &channel, Round round) {
            const RandomRecord<R> record(round, kId);
            channel.send(kSendmsg, &record.get(), 1);
          },
      .first_difference =
          [](Round round, const void *received) {
            const RandomRecord<R> sent(round, kId);
            return first_difference(sent.get(), *static_cast<const R *>(received));
          },
  };
}

#define SOAK_MESSAGE(package, message)                                                                       \
  make_message<package##_##message, drix_message_id(#package "." #message), package##_##message##__sendmsg>( \
      #package "." #message),

constexpr Message kFib6CfgMessages[] = {FIB6_CFG_MESSAGES(SOAK_MESSAGE)};
constexpr Message kKorBrokerFib6Messages[] = {KORBROKERFIB6_MESSAGES(SOAK_MESSAGE)};
constexpr Message kFib6SyncMessages[] = {FIB6SYNC_MESSAGES(SOAK_MESSAGE)};

constexpr Package kPackages[] = {
    {"fib6_cfg", fib6_cfg_send_init, fib6_cfg_recv_init, kFib6CfgMessages},
    {"korBrokerFib6", fib6_send_init, fib6_recv_init, kKorBrokerFib6Messages},
    {"fib6Sync", fib6_sync_send_init, fib6_sync_recv_init, kFib6SyncMessages},
};

enum MarkKind : uint32_t { kRound = 1, kEnd = 2 };

}  // namespace

std::span<const Package> packages() { return kPackages; }

fib6Sync_svcCtxMsg make_mark(const Mark &mark) {
  fib6Sync_svcCtxMsg message = {};
  message.f0.f0 = mark.end ? kEnd : kRound;
  message.f0.f1 = mark.round.number;
  message.f1[0] = mark.round.seed;
  Random random(mark.round, message.f0.f0);
  for (uint32_t &word : std::span(message.f1).subspan<1>()) word = static_cast<uint32_t>(random.draw());
  return message;
}

std::optional<Mark> read_mark(const fib6Sync_svcCtxMsg &message) {
  const Mark mark = {.round = {.seed = message.f1[0], .number = message.f0.f1}, .end = message.f0.f0 == kEnd};
  if (!first_difference(make_mark(mark), message).empty()) return std::nullopt;
  return mark;
}

}  // namespace soak
