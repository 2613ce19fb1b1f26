#include "kernel_mirror.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstring>
#include <iterator>
#include <tuple>
#include <utility>

namespace live {
namespace {

// The attributes of a message or of a next hop in it, by type; null those that it does not have.
template <std::size_t Count>
class Attributes {
 public:
  Attributes(const nlmsghdr *message, std::size_t header_bytes) {
    mnl_attr_parse(message, static_cast<unsigned>(header_bytes), keep, this);
  }
  Attributes(const void *bytes, std::size_t length) { mnl_attr_parse_payload(bytes, length, keep, this); }

  const nlattr *operator[](std::size_t type) const { return found_[type]; }

  uint32_t number(std::size_t type, uint32_t otherwise = 0) const {
    const nlattr *const found = found_[type];
    return found != nullptr && mnl_attr_validate(found, MNL_TYPE_U32) >= 0 ? mnl_attr_get_u32(found) : otherwise;
  }

  Address address(std::size_t type) const {
    Address address = {};
    const nlattr *const found = found_[type];
    if (found == nullptr || mnl_attr_get_payload_len(found) != sizeof address) return address;
    std::memcpy(address.data(), mnl_attr_get_payload(found), sizeof address);
    std::transform(address.begin(), address.end(), address.begin(), [](uint32_t word) { return ntohl(word); });
    return address;
  }

 private:
  static int keep(const nlattr *attribute, void *self) {
    const std::size_t type = mnl_attr_get_type(attribute);
    if (type < Count) static_cast<Attributes *>(self)->found_[type] = attribute;
    return MNL_CB_OK;
  }

  std::array<const nlattr *, Count> found_ = {};
};

using RouteAttributes = Attributes<RTA_MAX + 1>;

// Of the bytes of an encapsulation, which are only told apart.
uint32_t hash_of(const nlattr *attribute) {
  if (attribute == nullptr) return 0;
  const auto *byte = static_cast<const uint8_t *>(mnl_attr_get_payload(attribute));
  uint32_t hash = 0x811C9DC5;
  for (std::size_t i = 0; i < mnl_attr_get_payload_len(attribute); ++i) hash = (hash ^ byte[i]) * 0x01000193;
  return hash | 1;
}

// The attributes of the route itself and those of a next hop are of the same types.
NextHop next_hop(const rtmsg &header, const RouteAttributes &attributes, uint32_t interface, unsigned weight) {
  return {.gateway = attributes.address(RTA_GATEWAY),
          .interface = interface,
          .object = attributes.number(RTA_NH_ID),
          .encapsulation = hash_of(attributes[RTA_ENCAP]),
          .type = header.rtm_type,
          .protocol = header.rtm_protocol,
          .weight = static_cast<uint16_t>(weight)};
}

NextHops next_hops(const rtmsg &header, const RouteAttributes &attributes) {
  const nlattr *const several = attributes[RTA_MULTIPATH];
  if (several == nullptr) return {next_hop(header, attributes, attributes.number(RTA_OIF), 1)};
  NextHops hops;
  const auto *at = static_cast<const rtnexthop *>(mnl_attr_get_payload(several));
  int left = mnl_attr_get_payload_len(several);
  for (; RTNH_OK(at, left); left -= static_cast<int>(RTNH_ALIGN(at->rtnh_len)), at = RTNH_NEXT(at)) {
    const RouteAttributes own(RTNH_DATA(at), at->rtnh_len - RTNH_LENGTH(0));
    NextHop hop = next_hop(header, own, static_cast<uint32_t>(at->rtnh_ifindex), at->rtnh_hops + 1u);
    hop.object = attributes.number(RTA_NH_ID);
    hops.push_back(hop);
  }
  std::sort(hops.begin(), hops.end());
  hops.erase(std::unique(hops.begin(), hops.end()), hops.end());
  return hops;
}

// Whether these next hops are one route of the kernel's. Routes with the same key are several when they were added one
// after the other and are not of the kind that the kernel joins.
bool are_one_route(const NextHops &hops) {
  const uint32_t object = hops[0].object;
  return hops.size() == 1 || std::all_of(hops.begin(), hops.end(), [&](const NextHop &hop) {
           return object != 0 ? hop.object == object
                              : hop.object == 0 && hop.gateway != kNoAddress && hop.protocol != RTPROT_RA;
         });
}

// The order of next hops, but for the weight: a route whose other next hops are gone is reported without.
bool is_before(const NextHop &a, const NextHop &b) {
  const auto members = [](const NextHop &hop) {
    return std::tie(hop.gateway, hop.interface, hop.object, hop.encapsulation, hop.type, hop.protocol);
  };
  return members(a) < members(b);
}

// Next hops in both have the weight of the first.
NextHops join(const NextHops &first, const NextHops &second) {
  NextHops joined;
  std::set_union(first.begin(), first.end(), second.begin(), second.end(), std::back_inserter(joined), is_before);
  return joined;
}

}  // namespace

void KernelMirror::take_dumped(const nlmsghdr *message) {
  if (message->nlmsg_type == RTM_NEWLINK) take_link(message);
  Route route;
  if (message->nlmsg_type != RTM_NEWROUTE || !parse(message, route)) return;
  if (route.key == dumped_.key) {
    dumped_.next_hops = join(dumped_.next_hops, route.next_hops);
  } else {
    end_dump();
    dumped_ = std::move(route);
  }
}

void KernelMirror::end_dump() {
  if (dumped_.next_hops.empty()) return;
  // A dump that was disturbed may come back to a key.
  const LiveTable::Route *const held = table_.find(dumped_.key);
  const bool again = held != nullptr && held->pass == table_.pass();
  table_.set(dumped_.key, again ? join(dumped_.next_hops, held->next_hops()) : dumped_.next_hops);
  dumped_ = {};
}

void KernelMirror::take_event(const nlmsghdr *message) {
  switch (message->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      // What goes with an interface may go without an event of its own.
      if (!take_link(message) || message->nlmsg_type == RTM_DELLINK) doubt();
      break;
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
      Route route;
      if (!parse(message, route)) break;
      if (message->nlmsg_type == RTM_DELROUTE) {
        remove(route);
      } else {
        add(route, (message->nlmsg_flags & NLM_F_REPLACE) != 0);
      }
      break;
  }
}

// The event has all next hops of a route, also when one was appended; not those of other routes with the same key.
void KernelMirror::add(const Route &route, bool replace) {
  const LiveTable::Route *const held = table_.find(route.key);
  if (held == nullptr) return table_.set(route.key, route.next_hops);
  const NextHops former = held->next_hops();
  if (replace) {
    if (!are_one_route(former)) doubt();
    return table_.set(route.key, route.next_hops);
  }
  const NextHops joined = join(route.next_hops, former);
  const bool apart = joined.size() == former.size() + route.next_hops.size();
  table_.set(route.key, apart ? joined : route.next_hops);
  if (!apart && (joined != route.next_hops || joined == former)) doubt();
}

// The event has the next hops that are gone.
void KernelMirror::remove(const Route &route) {
  const LiveTable::Route *const held = table_.find(route.key);
  if (held == nullptr) return doubt();
  const NextHops &former = held->next_hops();
  NextHops rest;
  std::set_difference(former.begin(), former.end(), route.next_hops.begin(), route.next_hops.end(),
                      std::back_inserter(rest), is_before);
  if (rest.size() + route.next_hops.size() != former.size()) doubt();
  if (rest.size() == 1 && rest[0].object == 0) rest[0].weight = 1;
  if (rest.empty()) {
    table_.erase(route.key);
  } else {
    table_.set(route.key, rest);
  }
}

// False when the interface is down.
bool KernelMirror::take_link(const nlmsghdr *message) {
  if (mnl_nlmsg_get_payload_len(message) < sizeof(ifinfomsg)) return false;
  const auto &header = *static_cast<const ifinfomsg *>(mnl_nlmsg_get_payload(message));
  const Attributes<IFLA_IFNAME + 1> attributes(message, sizeof header);
  const nlattr *const name = attributes[IFLA_IFNAME];
  if (name != nullptr && mnl_attr_validate(name, MNL_TYPE_NUL_STRING) >= 0) {
    name_interface_(static_cast<uint32_t>(header.ifi_index), mnl_attr_get_str(name));
  }
  return (header.ifi_flags & IFF_UP) != 0;
}

// False when the message is not for the table.
bool KernelMirror::parse(const nlmsghdr *message, Route &route) {
  if (mnl_nlmsg_get_payload_len(message) < sizeof(rtmsg)) {
    doubt();
    return false;
  }
  const auto &header = *static_cast<const rtmsg *>(mnl_nlmsg_get_payload(message));
  if (header.rtm_family != AF_INET6 || (header.rtm_flags & RTM_F_CLONED) != 0) return false;
  if (header.rtm_src_len != 0) {
    ++left_out_;
    return false;
  }
  const RouteAttributes attributes(message, sizeof header);
  route.key = {.table = attributes.number(RTA_TABLE, header.rtm_table),
               .prefix = attributes.address(RTA_DST),
               .length = header.rtm_dst_len,
               .metric = attributes.number(RTA_PRIORITY)};
  route.next_hops = next_hops(header, attributes);
  if (!route.next_hops.empty()) return true;
  doubt();
  return false;
}

}  // namespace live
