#include "live_table.h"

#include <utility>

namespace live {
namespace {

class Hash {
 public:
  Hash &add(uint64_t word) {
    value_ = (value_ ^ word) * 0x9E3779B97F4A7C15;
    value_ ^= value_ >> 32;
    return *this;
  }
  Hash &add(const Address &address) {
    return add(uint64_t{address[0]} << 32 | address[1]).add(uint64_t{address[2]} << 32 | address[3]);
  }
  uint64_t value() const { return value_; }

 private:
  uint64_t value_ = 0x6A09E667F3BCC908;
};

uint64_t hash_of(const NextHops &next_hops) {
  Hash hash;
  for (const NextHop &hop : next_hops) {
    hash.add(hop.gateway)
        .add(uint64_t{hop.interface} << 32 | hop.object)
        .add(uint64_t{hop.encapsulation} << 32 | uint32_t{hop.weight} << 16 | uint32_t{hop.type} << 8 | hop.protocol);
  }
  return hash.value();
}

// Sums of these do not depend on their order.
uint64_t hash_of(const RouteKey &key, const LiveTable::Group &group) {
  return Hash().add(key.prefix).add(uint64_t{key.table} << 32 | key.metric).add(key.length).add(group.hash).value();
}

}  // namespace

void LiveTable::set(const RouteKey &key, const NextHops &next_hops) {
  const auto [at, added] = routes_.try_emplace(key, Route{nullptr, pass_});
  Route &route = at->second;
  route.pass = pass_;
  if (!added && route.next_hops() == next_hops) return;

  Groups::value_type *const former = std::exchange(route.group, use(next_hops));
  checksum_ += hash_of(key, route.group->second);
  if (former != nullptr) checksum_ -= hash_of(key, former->second);
  if (observer_ != nullptr) observer_->on_route(key);
  if (former != nullptr) release(former);
}

void LiveTable::erase(const RouteKey &key) {
  if (const auto route = routes_.find(key); route != routes_.end()) erase(route);
}

LiveTable::Routes::iterator LiveTable::erase(Routes::iterator route) {
  const RouteKey key = route->first;
  Groups::value_type *const group = route->second.group;
  checksum_ -= hash_of(key, group->second);
  const auto next = routes_.erase(route);
  if (observer_ != nullptr) observer_->on_route(key);
  release(group);
  return next;
}

void LiveTable::sweep(uint32_t pass) {
  for (auto route = routes_.begin(); route != routes_.end();) {
    // Passes are counted beyond the largest number.
    const bool former = static_cast<int32_t>(route->second.pass - pass) < 0;
    route = former ? erase(route) : std::next(route);
  }
}

const LiveTable::Route *LiveTable::find(const RouteKey &key) const {
  const auto route = routes_.find(key);
  return route != routes_.end() ? &route->second : nullptr;
}

LiveTable::Groups::value_type *LiveTable::use(const NextHops &next_hops) {
  const auto [group, added] = groups_.try_emplace(next_hops, Group{0, 0, 0});
  if (added) group->second = {++last_group_, hash_of(next_hops), 0};
  ++group->second.uses;
  return &*group;
}

void LiveTable::release(Groups::value_type *group) {
  if (--group->second.uses != 0) return;
  const uint32_t number = group->second.number;
  groups_.erase(groups_.find(group->first));
  if (observer_ != nullptr) observer_->on_unused_group(number);
}

}  // namespace live
