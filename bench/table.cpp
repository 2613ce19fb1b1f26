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

const struct {
  const char *operation;
  const char *bound;
} kRatios[] = {{"fixed build", "copy fixed"},      {"fixed decode", "copy fixed"},   {"compact build", "copy compact"},
               {"compact decode", "copy compact"}, {"compact build", "plain write"}, {"compact decode", "plain read"}};

using Columns = std::vector<std::string>;

void print_heading(const std::string &corner, const Columns &columns) {
  std::printf("\n| %s |", corner.c_str());
  for (const std::string &column : columns) std::printf(" %s |", column.c_str());
  std::printf("\n|---|");
  for (std::size_t i = 0; i < columns.size(); ++i) std::printf("--:|");
  std::printf("\n");
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
    if (found == rows_.end()) found = rows_.insert(rows_.end(), Row{row, run.family_index, {}});
    found->order = std::min(found->order, run.family_index);
    found->nanoseconds[name.substr(slash + 1)] = 1e9 / run.counters.at("items_per_second").value;
  }
}

void Table::Finalize() {
  std::sort(rows_.begin(), rows_.end(), [](const Row &a, const Row &b) { return a.order < b.order; });
  print_medians();
  print_ratios();
}

// Rows with the same columns share a table.
void Table::print_medians() const {
  std::vector<std::pair<Columns, std::vector<const Row *>>> tables;
  for (const Row &row : rows_) {
    Columns columns;
    for (const char *column : kColumns) {
      if (row.nanoseconds.contains(column)) columns.emplace_back(column);
    }
    auto table = std::find_if(tables.begin(), tables.end(), [&](const auto &each) { return each.first == columns; });
    if (table == tables.end()) table = tables.insert(tables.end(), {columns, {}});
    table->second.push_back(&row);
  }
  for (const auto &[columns, rows] : tables) {
    print_heading("ns", columns);
    for (const Row *row : rows) {
      std::printf("| %s |", row->name.c_str());
      for (const std::string &column : columns) std::printf(" %.1f |", row->nanoseconds.at(column));
      std::printf("\n");
    }
  }
}

void Table::print_ratios() const {
  Columns columns;
  for (const auto &[operation, bound] : kRatios) columns.push_back(std::string(operation) + " : " + bound);
  print_heading("ratio", columns);
  for (const Row &row : rows_) {
    const auto median = [&](const char *column) {
      const auto found = row.nanoseconds.find(column);
      return found == row.nanoseconds.end() ? 0 : found->second;
    };
    if (median("compact build") == 0) continue;
    std::printf("| %s |", row.name.c_str());
    for (const auto &[operation, bound] : kRatios) {
      if (median(operation) > 0 && median(bound) > 0) {
        std::printf(" %.2f |", median(operation) / median(bound));
      } else {
        std::printf(" |");
      }
    }
    std::printf("\n");
  }
}

}  // namespace bench
