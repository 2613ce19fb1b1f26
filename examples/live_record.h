// How a live table of the kernel's IPv6 routes is put on the bus; docs/live-table.md says in which order and why. The
// library gives the members of its records no meaning; the one below is the examples' own.
//
// Every message of a stream but the request:
//   f0.f0         number of the stream, which its receiver has drawn
//   f0.f1         number of the message in the stream, from 1
//
// fib6Sync_ipv6FwdUpdateMsg, a route that is new or has other next hops than before:
//   f1.f0         number of the interface in the sender's kernel
//   f1.f1         metric
//   f1.f2         table
//   f1.f3         destination prefix, most significant word first
//   f1.f4         length of the prefix in bits
//   f1.f5         type, RTN_UNICAST and so on of linux/rtnetlink.h
//   f1.f6         protocol, RTPROT_KERNEL and so on of linux/rtnetlink.h
//   f1.f7 .. f10  next hop, most significant word first; all zero when there is none
//   f1.f11        weight of the next hop
//   f1.f12        number of next hops when they stand in a group; 0 when the route has the one above
//   f1.f13        number of the group, or of the next hop's object in the kernel; with a group, f0, f5 to f11 are zero
//
// fib6Sync_ipv6FwdDelMsg, a route that is gone:
//   f1.f0 table, f1.f1 metric, f1.f2 destination prefix, f1.f3 length of the prefix
//
// fib6Sync_nhp6GroupUpdateMsg, a group of next hops for the routes to come, which share it; it never changes:
//   f1.f0 number of the group, f1.f1 number of its next hops, each of which follows
//
// fib6Sync_nhp6GroupNodeUpdateMsg, a next hop of a group:
//   f1.f0         number of the group
//   f1.f1         number of the interface
//   f1.f2 .. f5   next hop, most significant word first
//   f1.f6         number of the next hop's object in the kernel
//   f1.f7         weight
//   f1.f8         type in the second byte, protocol in the lowest
//   f1.f9         a number that tells encapsulations apart
//
// fib6Sync_nhp6GroupDelMsg, a group that no route uses any more:
//   f1.f0 number of the group
//
// fib6Sync_svcCtxMsg, one of Mark:
//   f1[0]         generation; number of the interface
//   f1[1] .. [4]  number of routes, lower and upper half of the checksum, 0; name of the interface, see route_record.h
//   f1[7]         the Mark
//
// fib6_cfg_query_comm_param, a receiver's request for the whole table and all changes after it:
//   f0            number of the stream that is to bring them
//   f1            kVersion
//   f2            endpoint of the receiver
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "fib6Sync.h"
#include "live_table.h"

namespace live {

inline constexpr char kDefaultRequests[] = "fib6_route_requests";
inline constexpr uint32_t kVersion = 1;

enum Mark : uint32_t {
  kBegin = 1,      // the whole table follows
  kEnd = 2,        // that was the whole table, as of now
  kBeat = 3,       // the table as of now; says also that the sender lives
  kInterface = 4,  // the name of an interface
};

// What is the same on both sides when they agree.
struct Summary {
  uint32_t generation = 0;  // drawn by each sender that starts
  uint32_t count = 0;
  uint64_t checksum = 0;

  bool operator==(const Summary &) const = default;
};

Summary summarize(uint32_t generation, const LiveTable &table);

// "generation=0badcafe count=3 checksum=0123456789abcdef"
std::string format_summary(const Summary &summary);

// Messages, not yet numbered, and the inverse.
fib6Sync_ipv6FwdUpdateMsg make_route(const RouteKey &key, const NextHop &next_hop);
fib6Sync_ipv6FwdUpdateMsg make_route(const RouteKey &key, uint32_t group, std::size_t next_hops);
fib6Sync_ipv6FwdDelMsg make_deletion(const RouteKey &key);
fib6Sync_nhp6GroupUpdateMsg make_group(uint32_t group, std::size_t next_hops);
fib6Sync_nhp6GroupNodeUpdateMsg make_member(uint32_t group, const NextHop &next_hop);
fib6Sync_nhp6GroupDelMsg make_group_deletion(uint32_t group);
fib6Sync_svcCtxMsg make_mark(Mark mark, const Summary &summary);
fib6Sync_svcCtxMsg make_interface(uint32_t number, std::string_view name);

RouteKey route_key(const fib6Sync_ipv6Fwd &route);
RouteKey route_key(const fib6Sync_ipv6FwdKey &key);
NextHop next_hop(const fib6Sync_ipv6Fwd &route);
NextHop next_hop(const fib6Sync_nhp6GroupNode &member);
Summary summary(const fib6Sync_svcCtxMsg &message);

// Whether a route has a message with room for its next hops, and so needs no group.
bool carries_itself(const NextHops &next_hops);

// A row of the table that route_record.h has the heading for.
std::string format_route(const RouteKey &key, const NextHop &next_hop, const std::string &interface);

// "2001:db8::/32"
std::string format_prefix(const RouteKey &key);

}  // namespace live
