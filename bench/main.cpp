// Times the library's operations with Google Benchmark, whose options it takes. Ends with an error when an operation
// does not give the right result.
// Usage: drix_bench SECONDS ROWS [OPTION OF GOOGLE BENCHMARK]...   CPU time of a repetition; regular expression for
// rows
#include <benchmark/benchmark.h>
#include <malloc.h>

#include <cstdio>
#include <exception>
#include <string>

#include "bench/cases.h"
#include "bench/timing.h"

int main(int argc, char **argv) {
  // Large blocks stay with the process, as they do in the platform's allocator: the codec is measured here, not how the
  // kernel hands out pages.
  mallopt(M_MMAP_THRESHOLD, 1 << 30);
  mallopt(M_TRIM_THRESHOLD, 1 << 30);
  benchmark::Initialize(&argc, argv);
  if (argc != 3) {
    std::fprintf(stderr, "Usage: drix_bench SECONDS ROWS [OPTION OF GOOGLE BENCHMARK]...\n");
    return 2;
  }
  try {
    bench::repetition_seconds = std::stod(argv[1]);
    bench::wanted_rows = argv[2];
    bench::register_single_cases();
    bench::register_fixed_cases();
    bench::register_vector_cases();
    bench::register_send_cases();
  } catch (const std::exception &error) {
    std::fprintf(stderr, "drix_bench: %s\n", error.what());
    return 1;
  }
  return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
