// How the route examples put the kernel's IPv6 routes on the bus. The library gives the members of its records no
// meaning; the one below is the examples' own.
//
// fib6Sync_ipv6FwdUpdateMsg, a route:
//   f0.f0         kRoute
//   f0.f1         sequence number
//   f1.f0         number of the interface, given by the sender
//   f1.f1         metric
//   f1.f2         flags, RTF_UP and so on of net/route.h
//   f1.f3         destination prefix, most significant word first
//   f1.f4         length of the prefix in bits
//   f1.f6         how often the sender had already sent the whole table, at most 0xFFFF
//   f1.f7 .. f10  next hop, most significant word first; all zero when there is none
//   f1.f13        checksum
// The other members are zero. The kernel's use counters are not carried, they describe the host and not the route.
//
// fib6Sync_svcCtxMsg, the name of an interface or the end of the stream:
//   f0.f0         kInterface or kEnd
//   f0.f1         sequence number
//   f1[0]         number of the interface, or number of routes in the stream
//   f1[1] .. [4]  name of the interface, first character in the lowest byte of f1[1], zeros after the last
//   f1[7]         checksum
//
// A stream names its interfaces, carries its routes and ends. Its messages are numbered from 1. The checksum of a
// message covers the message and, by way of the previous message's checksum, all messages before it.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "fib6Sync.h"
#include "stream_account.h"

namespace routes {

inline constexpr char kDefaultEndpoint[] = "fib6_routes";

inline constexpr uint32_t kRouteMessageId = drix_message_id("fib6Sync.ipv6FwdUpdateMsg");
inline constexpr uint32_t kContextMessageId = drix_message_id("fib6Sync.svcCtxMsg");

enum Kind : uint32_t { kRoute = 1, kInterface = 2, kEnd = 3 };

// Reads a line of /proc/net/ipv6_route and sets interface to the name at its end, a part of line. The number of the
// interface stays 0. Throws std::invalid_argument when the line has another form or the route cannot be represented.
fib6Sync_ipv6Fwd parse_route(std::string_view line, std::string_view &interface);

// "2001:db8::"
std::string format_address(std::span<const uint32_t, 4> words);

// A table of at most 80 columns: its heading, a row and the key to its flags, each without the last line end.
std::string table_heading();
std::string format_route(const fib6Sync_ipv6Fwd &route, const std::string &interface);
std::string table_key();

// Context messages, not yet stamped, and the inverse for names. A name has at most 15 characters.
fib6Sync_svcCtxMsg make_interface(uint32_t number, std::string_view name);
fib6Sync_svcCtxMsg make_end(uint32_t route_count);
std::string interface_name(const fib6Sync_svcCtxMsg &message);

// The checksum of a message that follows one with the checksum previous, 0 for the first.
uint32_t chain_checksum(uint32_t previous, const fib6Sync_ipv6FwdUpdateMsg &message);
uint32_t chain_checksum(uint32_t previous, const fib6Sync_svcCtxMsg &message);

auto &checksum_member(auto &message) {
  if constexpr (requires { message.f1.f13; }) {
    return message.f1.f13;
  } else {
    return message.f1[7];
  }
}

// The sender's side of a stream: numbers its messages and gives them their checksums.
class StreamStamp {
 public:
  void apply(auto &message) {
    message.f0.f1 = ++sequence_;
    checksum_ = checksum_member(message) = chain_checksum(checksum_, message);
  }

 private:
  uint32_t sequence_ = 0;
  uint32_t checksum_ = 0;
};

// The receiver's side: finds messages that are missing, repeated or not what was sent.
class StreamCheck {
 public:
  void take(const auto &message) {
    const uint32_t sequence = message.f0.f1;
    const uint32_t checksum = checksum_member(message);
    const bool due = sequence == account_.last() + 1;
    const bool differs = sequence == 0 || (due && checksum != chain_checksum(last_checksum_, message));
    // The next message is checked against this one, so that one fault is counted once.
    if (sequence > account_.last()) last_checksum_ = checksum;
    account_.take(sequence, differs);
  }

  void end() { account_.end(); }
  const StreamAccount &account() const { return account_; }

 private:
  StreamAccount account_;
  uint32_t last_checksum_ = 0;
};

}  // namespace routes
