// A table of routes that changes: by key, with next hops that routes share, a checksum that does not depend on the order
// of the changes, and passes that tell what a new reading of the whole table has not found any more.
#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace live {

using Address = std::array<uint32_t, 4>;  // most significant word first
inline constexpr Address kNoAddress = {};

// What tells the kernel's routes apart, and the order in which they are shown and sent.
struct RouteKey {
  uint32_t table = 0;
  Address prefix = {};
  uint8_t length = 0;
  uint32_t metric = 0;

  auto operator<=>(const RouteKey &) const = default;
};

struct NextHop {
  Address gateway = {};  // zero: none
  uint32_t interface = 0;
  uint32_t object = 0;         // the kernel's next hop object, 0: none
  uint32_t encapsulation = 0;  // tells encapsulations apart, 0: none
  uint8_t type = 0;            // RTN_UNICAST and so on
  uint8_t protocol = 0;        // RTPROT_KERNEL and so on
  uint16_t weight = 0;

  auto operator<=>(const NextHop &) const = default;
};

using NextHops = std::vector<NextHop>;  // sorted, each once

class LiveTable {
 public:
  // Is told what happens to the table.
  class Observer {
   public:
    virtual void on_route(const RouteKey &key) = 0;             // is there, is there with other next hops, or is gone
    virtual void on_unused_group(uint32_t group) noexcept = 0;  // after the route that was the last to use it

   protected:
    ~Observer() = default;
  };

  // Next hops as routes share them. A number is never given again.
  struct Group {
    uint32_t number;
    uint64_t hash;
    std::size_t uses;
  };
  using Groups = std::map<NextHops, Group>;

  struct Route {
    Groups::value_type *group;
    uint32_t pass;  // in which it was set last

    const NextHops &next_hops() const { return group->first; }
  };
  using Routes = std::map<RouteKey, Route>;

  explicit LiveTable(Observer *observer = nullptr) : observer_(observer) {}
  LiveTable(const LiveTable &) = delete;
  LiveTable &operator=(const LiveTable &) = delete;

  // Adds a route or gives it other next hops.
  void set(const RouteKey &key, const NextHops &next_hops);
  void erase(const RouteKey &key);

  // Begins a pass, in which the routes that there are will be set again, and returns its number.
  uint32_t begin_pass() { return ++pass_; }
  uint32_t pass() const { return pass_; }

  // Erases the routes that have not been set since the beginning of a pass.
  void sweep(uint32_t pass);

  const Routes &routes() const { return routes_; }
  std::size_t size() const { return routes_.size(); }

  // Null when there is none.
  const Route *find(const RouteKey &key) const;

  // Depends on every member of every route; equal tables have equal ones.
  uint64_t checksum() const { return checksum_; }

 private:
  Groups::value_type *use(const NextHops &next_hops);
  void release(Groups::value_type *group);
  Routes::iterator erase(Routes::iterator route);

  Observer *observer_;
  Routes routes_;
  Groups groups_;
  uint32_t last_group_ = 0;
  uint32_t pass_ = 0;
  uint64_t checksum_ = 0;
};

}  // namespace live
