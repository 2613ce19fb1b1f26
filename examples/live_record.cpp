#include "live_record.h"

#include <linux/rtnetlink.h>
#include <net/route.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

#include "route_record.h"

namespace live {

Summary summarize(uint32_t generation, const LiveTable &table) {
  return {generation, static_cast<uint32_t>(table.size()), table.checksum()};
}

std::string format_summary(const Summary &summary) {
  char text[80];
  std::snprintf(text, sizeof text, "generation=%08x count=%u checksum=%08x%08x", summary.generation, summary.count,
                static_cast<uint32_t>(summary.checksum >> 32), static_cast<uint32_t>(summary.checksum));
  return text;
}

namespace {

fib6Sync_ipv6FwdUpdateMsg make_route(const RouteKey &key) {
  fib6Sync_ipv6FwdUpdateMsg message = {};
  message.f1.f1 = key.metric;
  message.f1.f2 = key.table;
  std::copy(key.prefix.begin(), key.prefix.end(), message.f1.f3);
  message.f1.f4 = key.length;
  return message;
}

}  // namespace

fib6Sync_ipv6FwdUpdateMsg make_route(const RouteKey &key, const NextHop &next_hop) {
  fib6Sync_ipv6FwdUpdateMsg message = make_route(key);
  fib6Sync_ipv6Fwd &route = message.f1;
  route.f0 = next_hop.interface;
  route.f5 = next_hop.type;
  route.f6 = next_hop.protocol;
  route.f7 = next_hop.gateway[0];
  route.f8 = next_hop.gateway[1];
  route.f9 = next_hop.gateway[2];
  route.f10 = next_hop.gateway[3];
  route.f11 = next_hop.weight;
  route.f13 = next_hop.object;
  return message;
}

fib6Sync_ipv6FwdUpdateMsg make_route(const RouteKey &key, uint32_t group, std::size_t next_hops) {
  fib6Sync_ipv6FwdUpdateMsg message = make_route(key);
  message.f1.f12 = static_cast<uint16_t>(next_hops);
  message.f1.f13 = group;
  return message;
}

fib6Sync_ipv6FwdDelMsg make_deletion(const RouteKey &key) {
  fib6Sync_ipv6FwdDelMsg message = {};
  message.f1.f0 = key.table;
  message.f1.f1 = key.metric;
  std::copy(key.prefix.begin(), key.prefix.end(), message.f1.f2);
  message.f1.f3 = key.length;
  return message;
}

fib6Sync_nhp6GroupUpdateMsg make_group(uint32_t group, std::size_t next_hops) {
  fib6Sync_nhp6GroupUpdateMsg message = {};
  message.f1.f0 = group;
  message.f1.f1 = static_cast<uint32_t>(next_hops);
  return message;
}

fib6Sync_nhp6GroupNodeUpdateMsg make_member(uint32_t group, const NextHop &next_hop) {
  fib6Sync_nhp6GroupNodeUpdateMsg message = {};
  fib6Sync_nhp6GroupNode &member = message.f1;
  member.f0 = group;
  member.f1 = next_hop.interface;
  member.f2 = next_hop.gateway[0];
  member.f3 = next_hop.gateway[1];
  member.f4 = next_hop.gateway[2];
  member.f5 = next_hop.gateway[3];
  member.f6 = next_hop.object;
  member.f7 = next_hop.weight;
  member.f8 = uint32_t{next_hop.type} << 8 | next_hop.protocol;
  member.f9 = next_hop.encapsulation;
  return message;
}

fib6Sync_nhp6GroupDelMsg make_group_deletion(uint32_t group) {
  fib6Sync_nhp6GroupDelMsg message = {};
  message.f1.f0 = group;
  return message;
}

fib6Sync_svcCtxMsg make_mark(Mark mark, const Summary &summary) {
  fib6Sync_svcCtxMsg message = {};
  message.f1[0] = summary.generation;
  message.f1[1] = summary.count;
  message.f1[2] = static_cast<uint32_t>(summary.checksum);
  message.f1[3] = static_cast<uint32_t>(summary.checksum >> 32);
  message.f1[7] = mark;
  return message;
}

fib6Sync_svcCtxMsg make_interface(uint32_t number, std::string_view name) {
  fib6Sync_svcCtxMsg message = routes::make_interface(number, name);
  message.f1[7] = kInterface;
  return message;
}

RouteKey route_key(const fib6Sync_ipv6Fwd &route) {
  RouteKey key = {.table = route.f2, .prefix = {}, .length = route.f4, .metric = route.f1};
  std::copy(std::begin(route.f3), std::end(route.f3), key.prefix.begin());
  return key;
}

RouteKey route_key(const fib6Sync_ipv6FwdKey &from) {
  RouteKey key = {.table = from.f0, .prefix = {}, .length = from.f3, .metric = from.f1};
  std::copy(std::begin(from.f2), std::end(from.f2), key.prefix.begin());
  return key;
}

NextHop next_hop(const fib6Sync_ipv6Fwd &route) {
  return {.gateway = {route.f7, route.f8, route.f9, route.f10},
          .interface = route.f0,
          .object = route.f13,
          .encapsulation = 0,
          .type = route.f5,
          .protocol = static_cast<uint8_t>(route.f6),
          .weight = route.f11};
}

NextHop next_hop(const fib6Sync_nhp6GroupNode &member) {
  return {.gateway = {member.f2, member.f3, member.f4, member.f5},
          .interface = member.f1,
          .object = member.f6,
          .encapsulation = member.f9,
          .type = static_cast<uint8_t>(member.f8 >> 8),
          .protocol = static_cast<uint8_t>(member.f8),
          .weight = static_cast<uint16_t>(member.f7)};
}

Summary summary(const fib6Sync_svcCtxMsg &message) {
  return {message.f1[0], message.f1[1], uint64_t{message.f1[3]} << 32 | message.f1[2]};
}

bool carries_itself(const NextHops &next_hops) { return next_hops.size() == 1 && next_hops[0].encapsulation == 0; }

std::string format_route(const RouteKey &key, const NextHop &next_hop, const std::string &interface) {
  fib6Sync_ipv6Fwd route = make_route(key, next_hop).f1;
  route.f2 = RTF_UP;
  if (next_hop.gateway != kNoAddress) route.f2 |= RTF_GATEWAY;
  if (key.length == 128) route.f2 |= RTF_HOST;
  if (next_hop.protocol == RTPROT_RA) route.f2 |= RTF_ADDRCONF;
  if (next_hop.type == RTN_LOCAL) route.f2 |= RTF_LOCAL;
  if (next_hop.type == RTN_UNREACHABLE || next_hop.type == RTN_PROHIBIT || next_hop.type == RTN_BLACKHOLE) {
    route.f2 |= RTF_REJECT;
  }
  return routes::format_route(route, interface);
}

std::string format_prefix(const RouteKey &key) {
  return routes::format_address(key.prefix) + "/" + std::to_string(key.length);
}

}  // namespace live
