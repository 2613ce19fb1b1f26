// Counts the routes of a table, for the summary after it.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "fib6Sync.h"

namespace routes {

class Statistics {
 public:
  void take(const fib6Sync_ipv6Fwd &route, const std::string &interface);

  // Lines of at most 80 columns, each with its line end.
  std::string summary() const;

 private:
  std::map<std::string, uint64_t> kinds_;
  std::map<std::string, uint64_t> interfaces_;
  std::map<unsigned, uint64_t> prefix_lengths_;
};

}  // namespace routes
