// How operations are timed.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdint>
#include <string>

namespace bench {

// Times operation(i) for i in turn, so that no branch predictor learns one record by heart.
template <class Operation>
void time_in_turn(const std::string &name, uint32_t turns, Operation operation) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
    for (auto _ : state) {
      for (uint32_t i = 0; i < turns; ++i) {
        operation(i);
        benchmark::ClobberMemory();
      }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * turns);
  });
}

// Times one of two steps that have to follow each other, like allocating and freeing: every first(i), then every
// second(i). items is what one call counts for.
enum class Step { first, second };
template <class First, class Second>
void time_step(const std::string &name, Step step, uint32_t turns, uint32_t items, First first, Second second) {
  benchmark::RegisterBenchmark(name.c_str(), [=](benchmark::State &state) {
    using Clock = std::chrono::steady_clock;
    for (auto _ : state) {
      const auto start = Clock::now();
      for (uint32_t i = 0; i < turns; ++i) first(i);
      benchmark::ClobberMemory();
      const auto middle = Clock::now();
      for (uint32_t i = 0; i < turns; ++i) second(i);
      benchmark::ClobberMemory();
      const auto end = Clock::now();
      state.SetIterationTime(
          std::chrono::duration<double>(step == Step::first ? middle - start : end - middle).count());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * turns * items);
  })->UseManualTime();
}

}  // namespace bench
