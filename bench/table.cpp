#include "bench/table.h"

#include <algorithm>
#include <cstdio>

namespace bench {
namespace {

// In the order in which they are read.
const char *const kColumns[] = {
    "copy record",  "plain write",   "plain read",     "copy fixed",      "fixed build",      "fixed decode",
    "copy compact", "compact build", "compact decode", "release",         "batch of 1",       "batch of 16",
    "batch of 256", "batch of 4096", "decode of 1000", "decode of 10000", "decode of 100000", "decode of 1000000"};

template <class Row>
std::vector<const char *> columns_of(const Row &row) {
  std::vector<const char *> columns;
  for (const char *column : kColumns) {
    if (row.nanoseconds.contains(column)) columns.push_back(column);
  }
  return columns;
}

}  // namespace

bool Table::ReportContext(const Context &) { return true; }

void Table::ReportRuns(const std::vector<Run> &runs) {
  for (const Run &run : runs) {
    if (run.aggregate_name != "median") continue;
    const std::string &name = run.run_name.function_name;
    const std::size_t slash = name.rfind('/');
    const std::string row = name.substr(0, slash);
    auto found = std::find_if(rows_.begin(), rows_.end(), [&](const Row &each) { return each.name == row; });
    if (found == rows_.end()) found = rows_.insert(rows_.end(), Row{row, {}});
    found->nanoseconds[name.substr(slash + 1)] = 1e9 / run.counters.at("items_per_second").value;
  }
}

void Table::Finalize() {
  std::vector<const char *> heading;
  for (const Row &row : rows_) {
    const std::vector<const char *> columns = columns_of(row);
    if (columns != heading) {
      heading = columns;
      std::printf("\n| ns |");
      for (const char *column : columns) std::printf(" %s |", column);
      std::printf("\n|---|");
      for (std::size_t i = 0; i < columns.size(); ++i) std::printf("--:|");
      std::printf("\n");
    }
    std::printf("| %s |", row.name.c_str());
    for (const char *column : columns) std::printf(" %.1f |", row.nanoseconds.at(column));
    std::printf("\n");
  }
}

}  // namespace bench
