// What becomes of the kernel's messages, of which those for a row are made with libmnl.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "kernel_mirror.h"
#include "live_record.h"

namespace live {
namespace {

// A message from "+ 2001:db8::/32 100 2001:db8::1%2*3 2001:db8::2%2": + an event of a new route, += of one that replaces
// others, +p of one that a router advertised, - of one that is gone, d a route from a dump; prefix, metric, and the next
// hops, each with the number of its interface and perhaps @, a number for its object, or * and a weight.
std::vector<char> message(const std::string &text) {
  std::istringstream words(text);
  std::string what, prefix, hop;
  uint32_t metric = 0;
  words >> what >> prefix >> metric;
  std::vector<std::string> hops;
  while (words >> hop) hops.push_back(hop);

  std::vector<char> bytes(1024);
  nlmsghdr *const head = mnl_nlmsg_put_header(bytes.data());
  head->nlmsg_type = what[0] == '-' ? RTM_DELROUTE : RTM_NEWROUTE;
  if (what == "+=") head->nlmsg_flags |= NLM_F_REPLACE;
  auto *const route = static_cast<rtmsg *>(mnl_nlmsg_put_extra_header(head, sizeof(rtmsg)));
  route->rtm_family = AF_INET6;
  route->rtm_dst_len = static_cast<uint8_t>(std::stoi(prefix.substr(prefix.find('/') + 1)));
  route->rtm_table = RT_TABLE_MAIN;
  route->rtm_type = RTN_UNICAST;
  route->rtm_protocol = what == "+p" ? RTPROT_RA : RTPROT_STATIC;
  const auto put_address = [&](uint16_t type, const std::string &address) {
    in6_addr network;
    ASSERT_EQ(inet_pton(AF_INET6, address.c_str(), &network), 1) << address;
    if (address != "::") mnl_attr_put(head, type, sizeof network, &network);
  };
  put_address(RTA_DST, prefix.substr(0, prefix.find('/')));
  mnl_attr_put_u32(head, RTA_PRIORITY, metric);
  nlattr *const several = hops.size() > 1 ? mnl_attr_nest_start(head, RTA_MULTIPATH) : nullptr;
  for (const std::string &each : hops) {
    const std::size_t at = each.find('%');
    const auto number_after = [&](char mark) {
      const std::size_t found = each.find(mark);
      return found == std::string::npos ? 0u : static_cast<uint32_t>(std::stoul(each.substr(found + 1)));
    };
    if (several == nullptr) {
      mnl_attr_put_u32(head, RTA_OIF, number_after('%'));
      put_address(RTA_GATEWAY, each.substr(0, at));
      if (number_after('@') != 0) mnl_attr_put_u32(head, RTA_NH_ID, number_after('@'));
      continue;
    }
    auto *const part = static_cast<rtnexthop *>(mnl_nlmsg_put_extra_header(head, sizeof(rtnexthop)));
    part->rtnh_ifindex = static_cast<int>(number_after('%'));
    part->rtnh_hops = static_cast<uint8_t>(std::max(number_after('*'), 1u) - 1);
    const uint32_t before = head->nlmsg_len;
    put_address(RTA_GATEWAY, each.substr(0, at));
    part->rtnh_len = static_cast<uint16_t>(sizeof *part + head->nlmsg_len - before);
  }
  if (several != nullptr) mnl_attr_nest_end(head, several);
  return bytes;
}

// "2001:db8::/32 100 2001:db8::1%2*3", without the weight 1, with ! for an encapsulation.
std::string text_of(const LiveTable &table) {
  std::string text;
  for (const auto &[key, route] : table.routes()) {
    text += (text.empty() ? "" : "; ") + format_prefix(key) + " " + std::to_string(key.metric);
    for (const NextHop &hop : route.next_hops()) {
      text += " " + format_prefix({0, hop.gateway, 0, 0});
      text.resize(text.size() - 2);  // "/0"
      text += "%" + std::to_string(hop.interface);
      if (hop.object != 0) text += "@" + std::to_string(hop.object);
      if (hop.encapsulation != 0) text += "!";
      if (hop.weight != 1) text += "*" + std::to_string(hop.weight);
    }
  }
  return text;
}

TEST(KernelMirror, MakesOfEventsWhatTheKernelMeans) {
  const struct {
    std::vector<const char *> messages;
    const char *table;
    bool doubt;
  } cases[] = {
      {{"+ a::/16 1 ::%2"}, "a::/16 1 ::%2", false},
      {{"+ a::/16 1 ::%2", "- a::/16 1 ::%2"}, "", false},
      {{"- a::/16 1 ::%2", "+ a::/16 1 ::%2"}, "a::/16 1 ::%2", true},  // the addition was lost
      {{"+ a::/16 1 ::%2", "+ a::/16 2 ::%2", "- a::/16 1 ::%2"}, "a::/16 2 ::%2", false},
      {{"+ a::/16 1 a::1%2", "+= a::/16 1 a::2%2"}, "a::/16 1 a::2%2", false},
      // Appended to, the route comes with all its next hops; one by one they go.
      {{"+ a::/16 1 a::1%2", "+ a::/16 1 a::1%2 a::2%2*3"}, "a::/16 1 a::1%2 a::2%2*3", false},
      {{"+ a::/16 1 a::1%2 a::2%2*3 a::3%2", "- a::/16 1 a::2%2"}, "a::/16 1 a::1%2 a::3%2", false},
      {{"+ a::/16 1 a::1%2 a::2%2*3", "- a::/16 1 a::1%2"}, "a::/16 1 a::2%2", false},
      {{"+ a::/16 1 a::1%2 a::2%2", "- a::/16 1 a::2%2", "+ a::/16 1 a::1%2 a::2%2*3"},
       "a::/16 1 a::1%2 a::2%2*3",
       false},
      {{"+ a::/16 1 a::1%2 a::2%2", "+= a::/16 1 a::3%2"}, "a::/16 1 a::3%2", false},
      // Without a gateway, or advertised, routes with one key stand beside each other.
      {{"+ a::/16 1 ::%2", "+ a::/16 1 ::%3"}, "a::/16 1 ::%2 ::%3", false},
      {{"+ a::/16 1 ::%2", "+ a::/16 1 ::%3", "- a::/16 1 ::%2"}, "a::/16 1 ::%3", false},
      {{"+ a::/16 1 ::%2", "+ a::/16 1 ::%3", "+= a::/16 1 ::%4"}, "a::/16 1 ::%4", true},
      {{"+p ::/0 1 a::1%2", "+p ::/0 1 a::2%2", "+= ::/0 1 a::3%2"}, "::/0 1 a::3%2", true},
      {{"+ a::/16 1 a::1%2@7", "+ a::/16 1 a::1%2@8", "- a::/16 1 a::1%2@7"}, "a::/16 1 a::1%2@8", false},
      // What cannot be if every event was heard.
      {{"+ a::/16 1 a::1%2", "+ a::/16 1 a::1%2"}, "a::/16 1 a::1%2", true},
      {{"+ a::/16 1 a::1%2 a::2%2", "+ a::/16 1 a::2%2 a::3%2"}, "a::/16 1 a::2%2 a::3%2", true},
      {{"+ a::/16 1 a::1%2", "- a::/16 1 a::2%2"}, "a::/16 1 a::1%2", true},
      // A dump shows routes one by one, and may come back to one.
      {{"d a::/16 1 ::%2", "d a::/16 1 ::%3", "d b::/16 1 ::%2", "d a::/16 1 ::%2"},
       "a::/16 1 ::%2 ::%3; b::/16 1 ::%2",
       false},
      {{"+ a::/16 1 ::%2", "d a::/16 1 ::%3"}, "a::/16 1 ::%3", false},
  };
  for (const auto &each : cases) {
    SCOPED_TRACE(std::string(each.messages.front()) + " ... " + each.messages.back());
    LiveTable table;
    KernelMirror mirror(table, [](uint32_t, const std::string &) {});
    for (const std::string text : each.messages) {
      const std::vector<char> bytes = message(text);
      const auto *const head = reinterpret_cast<const nlmsghdr *>(bytes.data());
      if (text[0] == 'd' && table.pass() == 0) table.begin_pass();
      text[0] == 'd' ? mirror.take_dumped(head) : mirror.take_event(head);
    }
    mirror.end_dump();
    EXPECT_EQ(text_of(table), each.table);
    EXPECT_EQ(mirror.in_doubt(), each.doubt);
  }
}

// What a kernel answered: a link's prefix, several next hops, an encapsulation and an address of its own.
TEST(KernelMirror, ReadsARecordedDump) {
  static const char kDump[] =
      "740000001800020001000000a60a00000a400000fe0200011000000008000f00fe0000001400010020010db800010000000000000000"
      "00000800060000010000080004000300000024000c000000000000000000000000000000000000000000000000000000000000000000"
      "0500140000000000a80000001800020001000000a60a00000a300000fe0300010000000008000f00fe0000001400010020010db80002"
      "0000000000000000000008000600000400003c0009001c001000030000001400050020010db80001000000000000000000021c001002"
      "030000001400050020010db800010000000000000000000324000c000000000000000000000000000000000000000000000000000000"
      "0000000000000500140000000000b40000001800020001000000a60a00000a300000fe0300011000000008000f00fe00000014000100"
      "20010db800050000000000000000000008000600000400001400050020010db800010000000000000000000208000400030000002400"
      "16002000010001000000000204000000000020010db8000000000000000000000009060015000500000024000c000000000000000000"
      "0000000000000000000000000000000000000000000000000500140000000000740000001800020001000000a60a00000a800000ff02"
      "00020000000008000f00ff0000001400010020010db80001000000000000000000010800060000000000080004000300000024000c00"
      "00000000000000000000000000000000000000000000000000000000000000000500140000000000";
  std::vector<char> bytes;
  for (const char *at = kDump; *at != '\0'; at += 2)
    bytes.push_back(static_cast<char>(std::stoi(std::string(at, 2), nullptr, 16)));
  LiveTable table;
  KernelMirror mirror(table, [](uint32_t, const std::string &) {});
  int left = static_cast<int>(bytes.size());
  const auto *head = reinterpret_cast<const nlmsghdr *>(bytes.data());
  for (; mnl_nlmsg_ok(head, left); head = mnl_nlmsg_next(head, &left)) mirror.take_dumped(head);
  mirror.end_dump();
  EXPECT_EQ(left, 0);
  EXPECT_EQ(text_of(table),
            "2001:db8:1::/64 256 ::%3; "
            "2001:db8:2::/48 1024 2001:db8:1::2%3 2001:db8:1::3%3*3; "
            "2001:db8:5::/48 1024 2001:db8:1::2%3!; "
            "2001:db8:1::1/128 0 ::%3");
}

}  // namespace
}  // namespace live
