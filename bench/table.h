// The results as a table that can be read.
#pragma once

#include <benchmark/benchmark.h>

#include <map>
#include <string>
#include <vector>

namespace bench {

// Prints the median of each case, in nanoseconds an item: a line for each row of the cases' names, a column for each
// column. Rows with the same columns share a table.
class Table : public benchmark::BenchmarkReporter {
 public:
  bool ReportContext(const Context &context) override;
  void ReportRuns(const std::vector<Run> &runs) override;
  void Finalize() override;

 private:
  struct Row {
    std::string name;
    std::map<std::string, double> nanoseconds;  // by column
  };
  std::vector<Row> rows_;
};

}  // namespace bench
