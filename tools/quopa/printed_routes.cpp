#include "tools/quopa/printed_routes.h"

#include <arpa/inet.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "inspect/digits.h"
#include "tools/quopa/command.h"

namespace quopa {
namespace {

constexpr char kHeading[] = "Destination ";

// An address, and perhaps a length behind it.
bool read_prefix(const std::string &word, Route &route) {
  const std::size_t slash = word.find('/');
  const auto length = slash == std::string::npos ? std::nullopt : drix::inspect::parse_number(word.substr(slash + 1));
  if (!length) return false;
  route.length = *length;
  return inet_pton(AF_INET6, word.substr(0, slash).c_str(), route.destination.data()) == 1;
}

}  // namespace

std::string Route::text() const {
  char address[INET6_ADDRSTRLEN];
  inet_ntop(AF_INET6, destination.data(), address, sizeof address);
  return std::string(address) + '/' + std::to_string(length) + " metric=" + std::to_string(metric);
}

// Behind the heading, and up to a line that begins with no prefix, each row has destination, next hop, interface and
// metric, perhaps in two lines.
std::optional<Routes> read_printed_routes(const std::string &path) {
  std::error_code error;
  if (!std::filesystem::is_regular_file(path, error)) return std::nullopt;
  std::ifstream file(path);
  std::string line;
  constexpr std::size_t kLinesBefore = 1000;
  for (std::size_t i = 0; !line.starts_with(kHeading); ++i) {
    if (i == kLinesBefore || !std::getline(file, line) || line.find('\0') != std::string::npos) return std::nullopt;
  }
  Routes routes;
  while (std::getline(file, line)) {
    std::istringstream words(line);
    std::string prefix, next_hop, interface;
    Route route = {};
    if (!(words >> prefix) || !read_prefix(prefix, route)) break;
    std::string more;
    if (words.eof() && std::getline(file, more)) words = std::istringstream(more);
    uint8_t address[16];
    if (!(words >> next_hop >> interface >> route.metric) || inet_pton(AF_INET6, next_hop.c_str(), address) != 1) {
      throw BadInput(std::string(path).append(": no route: ").append(line));
    }
    routes[route].insert(next_hop);
  }
  return routes;
}

std::optional<RouteOfEntry> route_of(const Row &entry, const drix::inspect::Labels &labels) {
  const drix::describe::Type &type = *entry.telling->table->record;
  const auto destination = labels.slot(type, "destination");
  const auto length = labels.slot(type, "prefix_length");
  const auto metric = labels.slot(type, "metric");
  const auto next_hop = labels.slot(type, "next_hop_0");
  if (entry.telling->carried != &type || !destination || !length || !metric || !next_hop) return std::nullopt;
  if (!type.slots[*destination].is_address() || *next_hop + 4 > type.slots.size()) return std::nullopt;
  const drix::inspect::Record message = message_of(*entry.telling, entry.image());
  const uint8_t *const record = carried_in(*entry.telling, message.data());
  const auto number = [&](std::size_t slot) {
    return drix::inspect::number_at(record + type.slots[slot].member, type.slots[slot].width);
  };
  RouteOfEntry found = {{{}, number(*length), number(*metric)}, {}};
  const std::string address = drix::inspect::address_text(record + type.slots[*destination].member);
  inet_pton(AF_INET6, address.c_str(), found.route.destination.data());
  uint32_t words[4];
  for (std::size_t i = 0; i < 4; ++i) words[i] = number(*next_hop + i);
  found.next_hop = drix::inspect::address_text(reinterpret_cast<const uint8_t *>(words));
  return found;
}

}  // namespace quopa
