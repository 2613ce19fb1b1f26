// How operations are timed: in CPU time, which is what the benchmark library's rates are made of.
#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdint>
#include <ctime>
#include <regex>
#include <string>

namespace bench {

// The rows that are measured; of others no records are made, which takes longer than to measure a few.
inline std::regex wanted_rows("");
inline bool is_wanted(const std::string &row) { return std::regex_search(row, wanted_rows); }

// CPU time that one repetition of a case shall take.
inline double repetition_seconds = 0.01;

inline double cpu_seconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

// How many calls a repetition is made of. The quickest of several tries counts, as one interruption must not leave a
// case with a handful of calls, whose time would be the clock's own.
template <class Operation>
int64_t calls_in_a_repetition(uint32_t turns, Operation &operation) {
  constexpr double kLongEnough = 2e-4;
  constexpr int kTries = 3;
  for (int64_t calls = 1;; calls *= 2) {
    double quickest = 1e9;
    for (int i = 0; i < kTries; ++i) {
      const double start = cpu_seconds();
      for (int64_t call = 0; call < calls; ++call) operation(static_cast<uint32_t>(call % turns));
      quickest = std::min(quickest, cpu_seconds() - start);
      if (quickest < kLongEnough) break;
    }
    if (quickest >= kLongEnough) {
      return std::max<int64_t>(1, static_cast<int64_t>(repetition_seconds / quickest * static_cast<double>(calls)));
    }
  }
}

// Times operation(i) for i in turn. items is what one call counts for. Every repetition goes on where the one before
// has ended, so that all of a large set is used.
template <class Operation>
void time_in_turn(const std::string &name, uint32_t turns, uint32_t items, Operation operation) {
  const int64_t calls = calls_in_a_repetition(turns, operation);
  const auto repeat = [=, next = uint32_t{0}](benchmark::State &state) mutable {
    uint32_t i = next;
    for (auto _ : state) {
      operation(i);
      benchmark::ClobberMemory();
      if (++i == turns) i = 0;
    }
    next = i;
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * items);
  };
  benchmark::RegisterBenchmark(name.c_str(), repeat)->Iterations(calls);
}

}  // namespace bench
