#include "tools/quopa/byte_map.h"

#include <algorithm>

namespace quopa {

using drix::inspect::Event;

void ByteMap::take(std::span<const Event> events) {
  for (const Event &event : events) {
    const auto first = taken_.begin() + event.at;
    const auto last = first + event.size;
    if (std::find(first, last, false) == last) continue;
    std::fill(first, last, true);
    kept_.push_back(event);
  }
}

void ByteMap::add_culprit(const drix::inspect::Verdict &verdict) {
  const Event &culprit = verdict.culprit;
  const bool is_there = std::any_of(kept_.begin(), kept_.end(), [&](const Event &event) {
    return event.at == culprit.at && event.thing == culprit.thing;
  });
  if (!is_there && culprit.thing != drix::inspect::Thing::unreached) kept_.push_back(culprit);
}

std::vector<Event> ByteMap::in_order() const {
  std::vector<Event> events = kept_;
  std::stable_sort(events.begin(), events.end(), [](const Event &a, const Event &b) { return a.at < b.at; });
  return events;
}

}  // namespace quopa
