#include "soak_record.h"

#include <cstring>
#include <span>
#include <vector>

#include "tools/records/records.h"

namespace soak {
namespace {

// what: a number of its own for everything that is drawn in a round.
records::Random random_of(Round round, uint32_t what) {
  records::Random random(uint64_t{round.seed} << 32 | round.number);
  return records::Random(random.draw() + what);
}

// A record as it is in the round, its padding zeros.
struct Drawn {
  Drawn(const Type &type, Round round) : record(type.record_size) {
    records::Random random = random_of(round, type.id);
    const records::Mix mix = {.zeros = 25 * random.below(4), .most_bytes = random.below(8) == 0 ? 1023u : 15u};
    records::fill_random(type, record.data(), random, mix, arena);
  }

  std::vector<uint8_t> record;
  records::Arena arena;
};

enum MarkKind : uint32_t { kRound = 1, kEnd = 2 };

}  // namespace

void send(Channel &channel, const Type &type, Round round) {
  const Drawn drawn(type, round);
  channel.send_by([&](uint32_t handle) { return type.library.sendsingle(handle, drawn.record.data(), 1, 0); });
}

std::string first_difference(const Type &type, Round round, const void *received) {
  return records::first_difference(type, Drawn(type, round).record.data(), received);
}

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
