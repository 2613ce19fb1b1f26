#include "route_record.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdio>
#include <span>
#include <stdexcept>

namespace routes {
namespace {

// Takes fields off the front of a line; throws at the first that is not there.
class Fields {
 public:
  explicit Fields(std::string_view text) : text_(text) {}

  uint32_t number(std::size_t digits) {
    const uint32_t value = hexadecimal(digits);
    blanks();
    return value;
  }

  void address(std::span<uint32_t, 4> words) {
    for (uint32_t &word : words) word = hexadecimal(8);
    blanks();
  }

  std::string_view name() const {
    const bool good = !text_.empty() && text_.size() < IFNAMSIZ &&
                      std::all_of(text_.begin(), text_.end(), [](unsigned char c) { return std::isgraph(c) != 0; });
    if (!good) throw std::invalid_argument("not an interface name at the end");
    return text_;
  }

 private:
  uint32_t hexadecimal(std::size_t digits) {
    uint32_t value = 0;
    const char *const end = text_.data() + std::min(digits, text_.size());
    const auto [stop, error] = std::from_chars(text_.data(), end, value, 16);
    if (error != std::errc() || stop != text_.data() + digits) {
      throw std::invalid_argument("fewer than " + std::to_string(digits) +
                                  " hexadecimal digits where a number should be");
    }
    text_.remove_prefix(digits);
    return value;
  }

  void blanks() {
    const std::size_t count = std::min(text_.find_first_not_of(' '), text_.size());
    if (count == 0) throw std::invalid_argument("no blank where a field should end");
    text_.remove_prefix(count);
  }

  std::string_view text_;
};

std::string format_address(std::span<const uint32_t, 4> words) {
  uint32_t network_order[4];
  std::transform(words.begin(), words.end(), network_order, [](uint32_t word) { return htonl(word); });
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, network_order, text, sizeof text);
}

// The letters that netstat uses.
std::string format_flags(uint32_t flags) {
  static constexpr struct {
    uint32_t flag;
    char letter;
  } kLetters[] = {{RTF_UP, 'U'},       {RTF_GATEWAY, 'G'},  {RTF_HOST, 'H'},  {RTF_DYNAMIC, 'D'},
                  {RTF_MODIFIED, 'M'}, {RTF_ADDRCONF, 'A'}, {RTF_CACHE, 'C'}, {RTF_NONEXTHOP, 'n'},
                  {RTF_LOCAL, 'l'},    {RTF_REJECT, '!'}};
  std::string text;
  for (const auto &[flag, letter] : kLetters) {
    if (flags & flag) text += letter;
  }
  return text;
}

uint32_t chain(uint32_t checksum, std::span<const uint32_t> words) {
  for (const uint32_t word : words) {
    checksum = (checksum ^ word) * 0x9E3779B1u;
    checksum ^= checksum >> 15;
  }
  return checksum;
}

}  // namespace

const char kTableHeading[] =
    "Destination                                 Next hop                                 Interface           Metric "
    "Flags";

fib6Sync_ipv6Fwd parse_route(std::string_view line, std::string_view &interface) {
  Fields fields(line);
  fib6Sync_ipv6Fwd route = {};
  fields.address(route.f3);
  const uint32_t prefix_length = fields.number(2);
  uint32_t source[4];
  fields.address(source);
  const uint32_t source_length = fields.number(2);
  uint32_t next_hop[4];
  fields.address(next_hop);
  route.f1 = fields.number(8);
  fields.number(8);  // references
  fields.number(8);  // uses
  route.f2 = fields.number(8);
  interface = fields.name();

  if (prefix_length > 128) throw std::invalid_argument("prefix longer than 128 bits");
  if (source_length != 0) throw std::invalid_argument("a route for one source prefix only has no representation");
  route.f4 = static_cast<uint8_t>(prefix_length);
  route.f7 = next_hop[0];
  route.f8 = next_hop[1];
  route.f9 = next_hop[2];
  route.f10 = next_hop[3];
  return route;
}

std::string format_route(const fib6Sync_ipv6Fwd &route, const std::string &interface) {
  const std::string destination = format_address(route.f3) + "/" + std::to_string(route.f4);
  const uint32_t next_hop[4] = {route.f7, route.f8, route.f9, route.f10};
  char row[160];
  std::snprintf(row, sizeof row, "%-43s %-40s %-15s %10u %s", destination.c_str(), format_address(next_hop).c_str(),
                interface.c_str(), route.f1, format_flags(route.f2).c_str());
  return row;
}

fib6Sync_svcCtxMsg make_interface(uint32_t number, std::string_view name) {
  fib6Sync_svcCtxMsg message = {};
  message.f0.f0 = kInterface;
  message.f1[0] = number;
  for (std::size_t i = 0; i < name.size(); ++i) {
    message.f1[1 + i / 4] |= uint32_t{static_cast<unsigned char>(name[i])} << 8 * (i % 4);
  }
  return message;
}

fib6Sync_svcCtxMsg make_end(uint32_t route_count) {
  fib6Sync_svcCtxMsg message = {};
  message.f0.f0 = kEnd;
  message.f1[0] = route_count;
  return message;
}

std::string interface_name(const fib6Sync_svcCtxMsg &message) {
  std::string name;
  for (std::size_t i = 0; i < IFNAMSIZ; ++i) {
    const char c = static_cast<char>(message.f1[1 + i / 4] >> 8 * (i % 4));
    if (c == '\0') break;
    name += c;
  }
  return name;
}

uint32_t chain_checksum(uint32_t previous, const fib6Sync_ipv6FwdUpdateMsg &message) {
  const auto &[header, route] = message;
  const uint32_t words[] = {header.f0,   header.f1,   route.f0,    route.f1,  route.f2,  route.f3[0],
                            route.f3[1], route.f3[2], route.f3[3], route.f4,  route.f5,  route.f6,
                            route.f7,    route.f8,    route.f9,    route.f10, route.f11, route.f12};
  return chain(previous, words);
}

uint32_t chain_checksum(uint32_t previous, const fib6Sync_svcCtxMsg &message) {
  const uint32_t header[] = {message.f0.f0, message.f0.f1};
  return chain(chain(previous, header), std::span(message.f1).first<7>());
}

}  // namespace routes
