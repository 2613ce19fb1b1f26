// Build and decode of the fixed layout of every type that has one. Neither branches on a value, so a small set will do;
// it stays in the cache, as memory would bound the floor before anything else.
#include <memory>
#include <vector>

#include "bench/cases.h"
#include "bench/records.h"
#include "bench/timing.h"
#include "runtime/image.h"

namespace bench {
namespace {

template <class R>
struct Set {
  std::vector<R> records = std::vector<R>(kLearned);
  Images fixed;
  R decoded;
};

template <class R>
void register_if_fixed() {
  if constexpr (drix::kFixedLength<R>) {
    const std::string row = std::string("fixed-length types/") + drix::message<R>::name + "/";
    if (!is_wanted(row)) return;
    const auto set = std::make_shared<Set<R>>();
    Generator generator(0, 0.5);
    for (R &record : set->records) {
      generator.fill(record);
      set->fixed.add([&] {
        build_fixed(output(), &record);
        return drix::fixed_length<R>();
      });
    }
    for (uint32_t i = 0; i < kLearned; ++i) require_decodes(set->fixed[i], set->records[i]);
    time_in_turn(row + "copy fixed", kLearned, 1,
                 [=](uint32_t i) { copy(output(), set->fixed[i].start, set->fixed[i].size); });
    time_in_turn(row + "fixed build", kLearned, 1, [=](uint32_t i) { build_fixed(output(), &set->records[i]); });
    time_in_turn(row + "fixed decode", kLearned, 1,
                 [=](uint32_t i) { drix::message<R>::unpack(set->fixed[i].start, set->fixed[i].size, &set->decoded); });
  }
}

}  // namespace

#define BENCH_FIXED(package, message) register_if_fixed<package##_##message>();

void register_fixed_cases() {
  FIB6_CFG_MESSAGES(BENCH_FIXED)
  KORBROKERFIB6_MESSAGES(BENCH_FIXED)
  FIB6SYNC_MESSAGES(BENCH_FIXED)
}

}  // namespace bench
