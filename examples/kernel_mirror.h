// Keeps a table equal to the kernel's IPv6 routes, from what the kernel says over rtnetlink. Knows nothing of sockets.
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <string>

#include "live_table.h"

namespace live {

class KernelMirror {
 public:
  // Is told the name of each interface that the kernel speaks of.
  using NameInterface = std::function<void(uint32_t number, const std::string &name)>;

  KernelMirror(LiveTable &table, NameInterface name_interface)
      : table_(table), name_interface_(std::move(name_interface)) {}

  // Takes a message from a dump of all routes or interfaces. The table's pass tells what else is from the same dump.
  void take_dumped(const nlmsghdr *message);
  void end_dump();

  // Takes an event. One that is older than the last dump may have been heard of there; its effect is the same.
  void take_event(const nlmsghdr *message);

  // Whether what happened left room for doubt that the table is the kernel's, which only another dump can end. The
  // kernel's events tell of routes, and what of a route they mean is not clear when several share a key.
  bool in_doubt() const { return in_doubt_; }
  void doubt() { in_doubt_ = true; }
  void trust() { in_doubt_ = false; }

  // Routes for some source addresses only, which the table has no room for.
  uint64_t left_out() const { return left_out_; }

 private:
  struct Route {
    RouteKey key;
    NextHops next_hops;
  };

  bool parse(const nlmsghdr *message, Route &route);
  bool take_link(const nlmsghdr *message);
  void add(const Route &route, bool replace);
  void remove(const Route &route);

  LiveTable &table_;
  NameInterface name_interface_;
  Route dumped_;  // routes with the same key follow each other
  bool in_doubt_ = false;
  uint64_t left_out_ = 0;
};

}  // namespace live
