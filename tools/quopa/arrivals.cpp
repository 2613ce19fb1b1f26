#include "tools/quopa/arrivals.h"

#include <algorithm>
#include <new>

namespace quopa {

// Where the hash is, or where it goes.
std::size_t Arrivals::find(const Hash &hash) const {
  const std::size_t mask = slots_.size() - 1;
  std::size_t place = hash.high & mask;
  while (slots_[place] != kNone) {
    const Group &group = groups_[slots_[place]];
    if (group.high == hash.high && group.low == static_cast<uint32_t>(hash.low)) break;
    place = (place + 1) & mask;
  }
  return place;
}

// At most three slots in four are taken.
void Arrivals::grow() {
  const std::size_t size = slots_.empty() ? 1024 : 2 * slots_.size();
  std::vector<uint32_t>().swap(slots_);
  slots_.resize(size, kNone);
  for (std::size_t i = 0; i < groups_.size(); ++i) {
    std::size_t place = groups_[i].high & (size - 1);
    while (slots_[place] != kNone) place = (place + 1) & (size - 1);
    slots_[place] = static_cast<uint32_t>(i);
  }
}

void Arrivals::add(const Hash &hash, uint64_t time) {
  if (times_.size() == kMatched) throw std::bad_alloc();
  if (groups_.size() >= slots_.size() / 4 * 3) grow();
  const auto arrival = static_cast<uint32_t>(times_.size());
  times_.push_back(time);
  next_.push_back(kNone);
  uint32_t &slot = slots_[find(hash)];
  if (slot == kNone) {
    slot = static_cast<uint32_t>(groups_.size());
    groups_.push_back({hash.high, static_cast<uint32_t>(hash.low), arrival, arrival, 0, 0});
    return;
  }
  Group &group = groups_[slot];
  next_[group.last] = arrival;
  group.last = arrival;
}

std::optional<uint64_t> Arrivals::match(const Hash &hash, uint64_t sent) {
  const uint32_t slot = slots_.empty() ? kNone : slots_[find(hash)];
  if (slot == kNone) return std::nullopt;
  Group &group = groups_[slot];
  group.was_sent = 1;
  if (group.first == kNone) return std::nullopt;
  const uint32_t arrival = group.first;
  group.first = next_[arrival];
  group.matched = (group.matched + 1) & 0x7FFFFFFF;
  next_[arrival] = kMatched;
  ++matched_;
  const uint64_t time = times_[arrival];
  times_[arrival] = time - sent;
  return time;
}

Arrivals::Origin Arrivals::origin(const Hash &hash) {
  const uint32_t slot = slots_.empty() ? kNone : slots_[find(hash)];
  if (slot == kNone) return Origin::matched;  // it came after the first look
  Group &group = groups_[slot];
  if (group.matched == 0) return group.was_sent != 0 ? Origin::sent_before : Origin::unknown;
  group.matched = (group.matched - 1) & 0x7FFFFFFF;
  return Origin::matched;
}

std::vector<int64_t> Arrivals::take_delays() {
  std::deque<Group>().swap(groups_);
  std::vector<uint32_t>().swap(slots_);
  std::vector<int64_t> delays;
  delays.reserve(static_cast<std::size_t>(matched_));
  for (std::size_t i = 0; i < times_.size(); ++i) {
    if (next_[i] == kMatched) delays.push_back(static_cast<int64_t>(times_[i]));
  }
  std::deque<uint64_t>().swap(times_);
  std::deque<uint32_t>().swap(next_);
  std::sort(delays.begin(), delays.end());
  return delays;
}

}  // namespace quopa
