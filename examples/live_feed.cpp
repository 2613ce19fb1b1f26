#include "live_feed.h"

#include <algorithm>

namespace live {

void Feed::name_interface(uint32_t number, const std::string &name) {
  std::string &held = interface_names_[number];
  if (held == name) return;
  held = name;
  journal_.push_back({Change::kInterfaceName, number, {}});
}

const std::string &Feed::interface_name(uint32_t number) const {
  static const std::string kNone;
  const auto name = interface_names_.find(number);
  return name != interface_names_.end() ? name->second : kNone;
}

void Feed::forget(uint64_t before) {
  const auto count = static_cast<std::ptrdiff_t>(before - forgotten_);
  journal_.erase(journal_.begin(), journal_.begin() + count);
  forgotten_ = before;
}

const Batch *Stream::next() {
  if (batches_.empty()) fill();
  return batches_.empty() ? nullptr : &batches_.front();
}

void Stream::beat() {
  if (state_ == kLive && batches_.empty() && position_ == feed_.changes()) put(make_mark(kBeat, feed_.summary()));
}

void Stream::fill() {
  messages_before_ = messages_;
  if (state_ == kBeginning) {
    put(make_mark(kBegin, feed_.summary()));
    state_ = kInTable;
  }
  if (state_ == kInTable) fill_from_table();
  // What changes while the table is being sent may be on either side of where the stream is; it comes once more.
  if (state_ != kInTable) fill_from_journal();
  if (state_ == kCatchingUp && position_ == feed_.changes()) {
    put(make_mark(kEnd, feed_.summary()));
    state_ = kLive;
  }
}

void Stream::fill_from_table() {
  const LiveTable::Routes &routes = feed_.table().routes();
  auto route = last_ ? routes.upper_bound(*last_) : routes.begin();
  for (; route != routes.end() && !full(); ++route) {
    put_routes_next_hops(route->first, route->second);
    last_ = route->first;
  }
  if (route == routes.end()) state_ = kCatchingUp;
}

void Stream::fill_from_journal() {
  for (; position_ != feed_.changes() && !full(); ++position_) {
    const Feed::Change &change = feed_.change(position_);
    switch (change.what) {
      case Feed::Change::kRoute:
        put_route(change.key);
        break;
      case Feed::Change::kUnusedGroup:
        if (groups_.erase(change.number) != 0) put(make_group_deletion(change.number));
        break;
      case Feed::Change::kInterfaceName:
        if (interfaces_.erase(change.number) != 0) put_interface(change.number);
        break;
    }
  }
}

void Stream::put_route(const RouteKey &key) {
  const LiveTable::Route *const route = feed_.table().find(key);
  if (route != nullptr) {
    put_routes_next_hops(key, *route);
  } else {
    put(make_deletion(key));
  }
}

void Stream::put_routes_next_hops(const RouteKey &key, const LiveTable::Route &route) {
  const NextHops &next_hops = route.next_hops();
  for (const NextHop &hop : next_hops) put_interface(hop.interface);
  if (carries_itself(next_hops)) return put(make_route(key, next_hops[0]));

  const uint32_t group = route.group->second.number;
  if (groups_.insert(group).second) {
    put(make_group(group, next_hops.size()));
    for (const NextHop &hop : next_hops) put(make_member(group, hop));
  }
  put(make_route(key, group, next_hops.size()));
}

void Stream::put_interface(uint32_t number) {
  if (!interfaces_.insert(number).second) return;
  put(make_interface(number, feed_.interface_name(number)));
}

template <class Message>
void Stream::put(Message message) {
  message.f0.f0 = number_;
  message.f0.f1 = static_cast<uint32_t>(++messages_);
  using Messages = std::vector<Message>;
  if (batches_.empty() || !std::holds_alternative<Messages>(batches_.back())) batches_.emplace_back(Messages());
  std::get<Messages>(batches_.back()).push_back(message);
}

}  // namespace live
