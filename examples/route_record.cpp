#include "route_record.h"

#include <arpa/inet.h>
#include <net/if.h>
#include <net/route.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>
#include <cstddef>
#include <stdexcept>
#include <utility>

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

// The letters that netstat uses.
constexpr struct {
  uint32_t flag;
  char letter;
} kLetters[] = {{RTF_UP, 'U'},       {RTF_GATEWAY, 'G'}, {RTF_HOST, 'H'},      {RTF_DYNAMIC, 'D'}, {RTF_MODIFIED, 'M'},
                {RTF_ADDRCONF, 'A'}, {RTF_CACHE, 'C'},   {RTF_NONEXTHOP, 'n'}, {RTF_LOCAL, 'l'},   {RTF_REJECT, '!'}};

std::string format_flags(uint32_t flags) {
  std::string text;
  for (const auto &[flag, letter] : kLetters) {
    if (flags & flag) text += letter;
  }
  return text;
}

// The cells of a row; one that its column is too narrow for pushes the rest into a further line.
std::string format_row(const std::array<std::string, 5> &cells) {
  static constexpr std::array<std::size_t, 5> kColumns = {0, 27, 50, 60, 71};
  std::string row;
  std::size_t line = 0;  // where the last line begins
  for (std::size_t i = 0; i < cells.size(); ++i) {
    if (i > 0 && row.size() - line >= kColumns[i]) {
      row += '\n';
      line = row.size();
    }
    row.append(kColumns[i] - (row.size() - line), ' ');
    row += cells[i];
  }
  return row;
}

// Random for each place; with multiples of one number, changes of two words would cancel out too often.
constexpr uint32_t key(std::size_t place) {
  uint32_t bits = static_cast<uint32_t>(place + 1) * 0x9E3779B1;
  bits = (bits ^ bits >> 15) * 0x85EBCA77;
  return bits ^ bits >> 13;
}

// The sum of the products of neighbours, each with its key, depends on value and place of every word. No product waits
// for another, nor for the previous checksum: a tenth of the time of a chain from word to word.
template <std::size_t... I>
uint32_t chain(uint32_t previous, const uint32_t (&words)[2 * sizeof...(I)], std::index_sequence<I...>) {
  const uint64_t sum = (... + (uint64_t{words[2 * I] + key(2 * I)} * (words[2 * I + 1] + key(2 * I + 1))));
  return static_cast<uint32_t>(sum * 0x9E3779B97F4A7C15 >> 32) ^ previous * 0x9E3779B1;
}

}  // namespace

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

std::string format_address(std::span<const uint32_t, 4> words) {
  uint32_t network_order[4];
  std::transform(words.begin(), words.end(), network_order, [](uint32_t word) { return htonl(word); });
  char text[INET6_ADDRSTRLEN];
  return inet_ntop(AF_INET6, network_order, text, sizeof text);
}

std::string table_heading() { return format_row({"Destination", "Next hop", "Interface", "    Metric", "Flags"}); }

std::string table_key() {
  return "Flags: U up, G over a gateway, H a host, D and M by redirect, C cached,\n"
         "       A by advertisement, n no next hop, l this host's own, ! rejected";
}

std::string format_route(const fib6Sync_ipv6Fwd &route, const std::string &interface) {
  const uint32_t next_hop[4] = {route.f7, route.f8, route.f9, route.f10};
  const std::string metric = std::to_string(route.f1);
  return format_row({format_address(route.f3) + "/" + std::to_string(route.f4), format_address(next_hop), interface,
                     std::string(10 - metric.size(), ' ') + metric, format_flags(route.f2)});
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
  // The sender has just written f6; together with its neighbours it would have to wait for that to reach the cache.
  const uint32_t words[] = {header.f0,
                            header.f1,
                            route.f0,
                            route.f1,
                            route.f2,
                            route.f3[0],
                            route.f3[1],
                            route.f3[2],
                            route.f3[3],
                            route.f7,
                            route.f8,
                            route.f9,
                            route.f10,
                            route.f6,
                            route.f4 | uint32_t{route.f5} << 8,
                            route.f11 | uint32_t{route.f12} << 16};
  return chain(previous, words, std::make_index_sequence<8>());
}

uint32_t chain_checksum(uint32_t previous, const fib6Sync_svcCtxMsg &message) {
  const auto &[header, context] = message;
  const uint32_t words[] = {header.f0,  header.f1,  context[0], context[1], context[2],
                            context[3], context[4], context[5], context[6], 0};
  return chain(previous, words, std::make_index_sequence<5>());
}

}  // namespace routes
