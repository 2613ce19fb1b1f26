// A table of routes as route_receiver prints it, and entries of tables seen as such.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>

#include "tools/quopa/entry.h"

namespace quopa {

struct Route {
  std::array<uint8_t, 16> destination;
  uint32_t length;
  uint32_t metric;

  std::string text() const;  // "2001:db8::/32 metric=1024"
  auto operator<=>(const Route &) const = default;
};

// With their next hops.
using NextHops = std::set<std::string>;
using Routes = std::map<Route, NextHops>;

// No value for a file that is no such table. Throws BadInput when it is read but not understood.
std::optional<Routes> read_printed_routes(const std::string &path);

// What an entry is, when the labels name the members of its record destination, prefix_length, metric, and next_hop_0 to
// next_hop_3.
struct RouteOfEntry {
  Route route;
  std::string next_hop;
};
std::optional<RouteOfEntry> route_of(const Row &entry, const drix::inspect::Labels &labels);

}  // namespace quopa
