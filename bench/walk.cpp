// What the walk of inspect/ costs beside the library's decode of the same buffers, for every type in each layout. Ends
// with an error when a buffer is not accepted, or when a walk takes more than 20 decodes.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "inspect/record.h"
#include "inspect/walk.h"
#include "tools/quopa/null_bus.h"
#include "tools/records/records.h"

namespace {

using drix::Kind;
using drix::describe::SlotInfo;
using drix::describe::Type;
using drix::inspect::Record;
using Buffer = std::vector<uint8_t>;

constexpr uint32_t kTurns = 64;  // buffers of one type, so that no branch predictor learns one by heart
constexpr uint32_t kElements = 8;
constexpr double kLimit = 20;

// Takes the events and does nothing.
class Ignore : public drix::inspect::Sink {
 public:
  void take(const drix::inspect::TablePath &, std::span<const drix::inspect::Event> events) override {
    taken_ += events.size();
  }

 private:
  std::size_t taken_ = 0;
};

uint32_t number(records::Random &random) { return static_cast<uint32_t>(random.draw()) | 1; }

// Every second scalar is zero.
void fill(const Type &type, uint8_t *to, Record &record, records::Random &random) {
  for (const SlotInfo &slot : type.slots) {
    uint8_t *const at = to + slot.member;
    if (slot.kind == Kind::scalar) drix::inspect::set_number(at, slot.width, random.below(2) * number(random));
    for (uint32_t i = 0; i < slot.elements; ++i)
      drix::inspect::set_number(at + i * slot.width, slot.width, number(random));
    if (slot.kind == Kind::table) fill(*slot.inner, at, record, random);
    if (slot.kind != Kind::bytes && slot.kind != Kind::vector) continue;
    const uint32_t size = slot.kind == Kind::bytes ? 1 : slot.inner->record_size;
    uint8_t *const block = record.allocate(std::size_t{kElements} * size);
    drix::inspect::set_member(to, slot.length_member, kElements);
    drix::inspect::set_member(at, 0, block);
    for (uint32_t i = 0; slot.kind == Kind::vector && i < kElements; ++i) {
      fill(*slot.inner, block + i * size, record, random);
    }
  }
}

Buffer build(const Type &type, bool fixed, records::Random &random) {
  Record record(type);
  fill(type, record.data(), record, random);
  Buffer buffer(1 << 16);
  auto length = static_cast<uint32_t>(buffer.size());
  const int32_t status = fixed ? type.library.sendsingle(0, record.data(), 1, 0)
                               : type.library.pack(record.data(), buffer.data(), &length);
  if (status != 0) std::exit(1);
  return fixed ? quopa::last_sent() : Buffer(buffer.begin(), buffer.begin() + length);
}

struct Cost {
  double decode;
  double walk;
};

// Nanoseconds a buffer, of one round.
template <class Operation>
double time(Operation operation) {
  using Clock = std::chrono::steady_clock;
  const auto start = Clock::now();
  for (uint32_t i = 0; i < kTurns; ++i) operation(i);
  return std::chrono::duration<double, std::nano>(Clock::now() - start).count() / kTurns;
}

double median(std::vector<double> &values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// The medians of rounds that take turns, so that a busy machine slows both.
Cost measure(const Type &type, const std::vector<Buffer> &buffers) {
  constexpr int kRounds = 501;
  const auto length = [&](uint32_t i) { return static_cast<uint32_t>(buffers[i].size()); };
  Record record(type);
  Ignore ignore;
  bool accepted = true;
  std::vector<double> decode;
  std::vector<double> walk;
  for (int round = 0; round < kRounds; ++round) {
    decode.push_back(time([&](uint32_t i) {
      type.library.unpack(buffers[i].data(), length(i), record.data());
      type.library.free_unpacked(record.data());
    }));
    walk.push_back(time([&](uint32_t i) {
      accepted = drix::inspect::walk(type, buffers[i].data(), length(i), &ignore).accepted() && accepted;
    }));
  }
  if (!accepted) std::exit(1);
  return {median(decode), median(walk)};
}

}  // namespace

int main() {
  records::Random random(1);
  std::vector<double> ratios;
  std::printf("| type | layout | bytes | decode ns | walk ns | ratio |\n|---|---|--:|--:|--:|--:|\n");
  for (const Type *type : drix::describe::types()) {
    for (const bool fixed : {false, true}) {
      if (fixed && !type->is_fixed()) continue;
      std::vector<Buffer> buffers;
      for (uint32_t i = 0; i < kTurns; ++i) buffers.push_back(build(*type, fixed, random));
      const Cost cost = measure(*type, buffers);
      ratios.push_back(cost.walk / cost.decode);
      std::printf("| %s | %s | %zu | %.1f | %.1f | %.1f |\n", type->name().c_str(), fixed ? "fixed" : "compact",
                  buffers[0].size(), cost.decode, cost.walk, ratios.back());
    }
  }
  std::sort(ratios.begin(), ratios.end());
  std::printf("median ratio %.1f, greatest %.1f\n", ratios[ratios.size() / 2], ratios.back());
  return ratios.back() <= kLimit ? 0 : 1;
}
