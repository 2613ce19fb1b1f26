#include "soak_record.h"

#include <cstring>

#include "drix_message.hpp"
#include "tools/records/shape.h"

namespace soak {
namespace {

// what: a number of its own for everything that is drawn in a round.
records::Random random_of(Round round, uint32_t what) {
  records::Random random(uint64_t{round.seed} << 32 | round.number);
  return records::Random(random.draw() + what);
}

// Fills a record as it is in the round, its padding with zeros.
void fill(const records::Shape &shape, void *record, Round round, uint32_t id, records::Arena &arena) {
  std::memset(record, 0, shape.record_size);
  records::Random random = random_of(round, id);
  const records::Mix mix = {.zeros = 25 * random.below(4), .most_bytes = random.below(8) == 0 ? 1023u : 15u};
  records::fill_random(shape, record, random, mix, arena);
}

template <class R>
constexpr Message make_message() {
  return {
      .name = drix::message<R>::name,
      .id = drix::message<R>::id,
      .send =
          [](Channel &channel, Round round) {
            records::Arena arena;
            R record;
            fill(records::kShape<R>, &record, round, drix::message<R>::id, arena);
            channel.send(record);
          },
      .first_difference =
          [](Round round, const void *received) {
            records::Arena arena;
            R sent;
            fill(records::kShape<R>, &sent, round, drix::message<R>::id, arena);
            return records::first_difference(records::kShape<R>, &sent, received);
          },
  };
}

#define SOAK_MESSAGE(package, message) make_message<package##_##message>(),

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
  records::Random random = random_of(mark.round, message.f0.f0);
  for (uint32_t &word : std::span(message.f1).subspan<1>()) word = static_cast<uint32_t>(random.draw());
  return message;
}

std::optional<Mark> read_mark(const fib6Sync_svcCtxMsg &message) {
  const Mark mark = {.round = {.seed = message.f1[0], .number = message.f0.f1}, .end = message.f0.f0 == kEnd};
  const fib6Sync_svcCtxMsg expected = make_mark(mark);
  if (std::memcmp(&message, &expected, sizeof message) != 0) return std::nullopt;
  return mark;
}

}  // namespace soak
