#include "live_mirror.h"

#include <algorithm>

#include "route_record.h"

namespace live {

void Mirror::take(const fib6Sync_ipv6FwdUpdateMsg &message) {
  if (!in_turn(message.f0)) return;
  const fib6Sync_ipv6Fwd &route = message.f1;
  if (route.f12 == 0) return table_.set(route_key(route), {next_hop(route)});
  const auto group = groups_.find(route.f13);
  if (group == groups_.end() || group->second.size() != route.f12) return lose(counters_.differences);
  table_.set(route_key(route), group->second);
}

void Mirror::take(const fib6Sync_ipv6FwdDelMsg &message) {
  if (in_turn(message.f0)) table_.erase(route_key(message.f1));
}

void Mirror::take(const fib6Sync_nhp6GroupUpdateMsg &message) {
  if (in_turn(message.f0)) groups_[message.f1.f0] = {};
}

void Mirror::take(const fib6Sync_nhp6GroupNodeUpdateMsg &message) {
  if (!in_turn(message.f0)) return;
  NextHops &next_hops = groups_[message.f1.f0];
  const NextHop hop = next_hop(message.f1);
  next_hops.insert(std::upper_bound(next_hops.begin(), next_hops.end(), hop), hop);
}

void Mirror::take(const fib6Sync_nhp6GroupDelMsg &message) {
  if (in_turn(message.f0)) groups_.erase(message.f1.f0);
}

void Mirror::take(const fib6Sync_svcCtxMsg &message) {
  if (!in_turn(message.f0)) return;
  switch (message.f1[7]) {
    case kBegin:
      generation_ = live::summary(message).generation;
      pass_ = table_.begin_pass();
      groups_.clear();
      break;
    case kEnd:
      table_.sweep(pass_);
      whole_ = summary() == live::summary(message);
      if (!whole_) return lose(counters_.differences);
      ++counters_.tables;
      break;
    case kBeat:
      if (summary() != live::summary(message)) lose(counters_.differences);
      break;
    case kInterface:
      interface_names_[message.f1[0]] = routes::interface_name(message);
      break;
  }
}

// Every message goes through here: only what continues the stream is for the table.
bool Mirror::in_turn(const fib6Sync_tlv &header) {
  if (header.f0 != stream_) {
    ++counters_.foreign;
    return false;
  }
  quiet_ticks_ = 0;
  if (lost_) return false;
  const uint32_t ahead = header.f1 - last_;  // numbers are counted beyond the largest
  if (static_cast<int32_t>(ahead) <= 0) {
    ++counters_.repeated;
    return false;
  }
  if (ahead != 1) {
    lose(counters_.gaps);
    return false;
  }
  last_ = header.f1;
  ++counters_.messages;
  return true;
}

void Mirror::lose(uint64_t &reason) {
  ++reason;
  lost_ = true;
  whole_ = false;
}

void Mirror::tick() {
  ++quiet_ticks_;
  if (last_ == 0) {
    if (quiet_ticks_ % kAskAgain == 0) again_ = true;
  } else if (quiet_ticks_ == kDead) {
    lose(counters_.silences);
  }
}

std::optional<uint32_t> Mirror::ask() {
  if (!wants_table()) return std::nullopt;
  if (lost_) {
    ++stream_;
    last_ = 0;
    quiet_ticks_ = 0;
  }
  lost_ = again_ = false;
  return stream_;
}

std::string Mirror::interface_name(uint32_t number) const {
  const auto name = interface_names_.find(number);
  return name != interface_names_.end() && !name->second.empty() ? name->second : std::to_string(number);
}

}  // namespace live
