#include "tools/quopa/byte_map.h"

#include <algorithm>

namespace quopa {

using drix::inspect::Event;

void ByteMap::take(const drix::inspect::TablePath &path, std::span<const Event> events) {
  for (const Event &event : events) {
    const auto first = taken_.begin() + event.at;
    const auto last = first + event.size;
    if (std::find(first, last, false) == last) continue;
    std::fill(first, last, true);
    kept_.push_back({path, event});
  }
}

void ByteMap::add_culprit(const drix::inspect::Verdict &verdict) {
  const Event &culprit = verdict.culprit;
  const bool is_there = std::any_of(kept_.begin(), kept_.end(), [&](const Entry &entry) {
    return entry.event.at == culprit.at && entry.event.thing == culprit.thing;
  });
  if (!is_there && culprit.thing != drix::inspect::Thing::unreached) kept_.push_back({verdict.path, culprit});
}

const std::vector<Entry> &ByteMap::in_order() {
  std::stable_sort(kept_.begin(), kept_.end(), [](const Entry &a, const Entry &b) { return a.event.at < b.event.at; });
  return kept_;
}

}  // namespace quopa
