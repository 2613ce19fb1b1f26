// The results as tables that can be read.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace bench {

// Prints the median of each case, in nanoseconds an item: a line for each row of the cases' names, a column for each
// column; then how the operations of the library compare with what bounds them.
class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &context) override;
  void ReportRuns(const std::vector<Run> &runs) override;
  void Finalize() override;

 private:
  struct Row {
    std::string name;
    int64_t order;
    std::map<std::string, double> nanoseconds;  // by column
  };

  void print_medians() const;
  void print_ratios() const;

  std::vector<Row> rows_;
};

}  // namespace bench
