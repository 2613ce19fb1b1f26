// What a process pays once: loading bus and library, registering its messages, and the first call of an operation, which
// binds the platform's services; in CPU time and in minor page faults, which are most of it. Each measurement is made in
// a fresh process, so it takes Google Benchmark's manual time; a page fault counts as a nanosecond there.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Step {
  std::string name;
  double nanoseconds;
  double faults;
};

std::vector<Step> measure_in_a_fresh_process(const char *command) {
  std::FILE *const lines = popen(command, "r");
  if (lines == nullptr) throw std::runtime_error("no process");
  std::vector<Step> steps;
  Step step;
  char name[32];
  while (std::fscanf(lines, "%lf %lf %31[^\n]", &step.nanoseconds, &step.faults, name) == 3) {
    step.name = name;
    steps.push_back(step);
  }
  if (pclose(lines) != 0) throw std::runtime_error(std::string(command) + " has failed");
  return steps;
}

void register_steps(const char *command, const char *row, double Step::*figure) {
  const std::vector<Step> steps = measure_in_a_fresh_process(command);
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const std::string name = std::string(row) + "/" + steps[i].name;
    const auto repeat = [=](benchmark::State &state) {
      for (auto _ : state) state.SetIterationTime(1e-9 * (measure_in_a_fresh_process(command)[i].*figure));
      state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
    };
    benchmark::RegisterBenchmark(name.c_str(), repeat)->UseManualTime()->Iterations(20);
  }
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    for (const char *command : {"'" BENCH_PROCESS "' --both", "'" BENCH_PROCESS "'"}) {
      register_steps(command, "once in a process/a process", &Step::nanoseconds);
      register_steps(command, "page faults once in a process/a process", &Step::faults);
    }
    return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
  } catch (const std::exception &error) {
    std::fprintf(stderr, "drix_bench_startup: %s\n", error.what());
    return 1;
  }
}
