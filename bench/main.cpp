// Times the library's operations with Google Benchmark, whose options it takes, and prints tables of medians. Ends with
// an error when an operation does not give the right result.
#include <cstdio>
#include <exception>

#include "bench/cases.h"
#include "bench/table.h"

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  try {
    bench::register_codec_cases();
    bench::register_send_cases();
    bench::register_vector_cases();
  } catch (const std::exception &error) {
    std::fprintf(stderr, "drix_bench: %s\n", error.what());
    return 1;
  }
  bench::Table table;
  return benchmark::RunSpecifiedBenchmarks(&table) > 0 ? 0 : 1;
}
