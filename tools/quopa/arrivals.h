// What has arrived, by hashes: some 50 bytes for each, however long the messages are.
#pragma once

#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "inspect/hash.h"

namespace quopa {

using drix::inspect::Hash;

// Of several that are the same, the first that was sent is the first that arrived.
class Arrivals {
 public:
  void add(const Hash &hash, uint64_t time);

  // Of one that was sent then, when it arrived; no value when none is left.
  std::optional<uint64_t> match(const Hash &hash, uint64_t sent);

  // Asked of all that arrived once more in the same order, when all that was sent was matched: what is to be told of it.
  enum class Origin : uint8_t { matched, sent_before, unknown };
  Origin origin(const Hash &hash);

  uint64_t matched() const { return matched_; }
  uint64_t unmatched() const { return times_.size() - matched_; }

  // How long those took that were matched, in order. Ends all the rest.
  std::vector<int64_t> take_delays();

 private:
  // Those with one hash.
  struct Group {
    uint64_t high;
    uint32_t low;
    uint32_t first;  // that is not matched
    uint32_t last;
    uint32_t matched : 31;
    uint32_t was_sent : 1;
  };

  static constexpr uint32_t kNone = UINT32_MAX;
  static constexpr uint32_t kMatched = UINT32_MAX - 1;

  std::size_t find(const Hash &hash) const;
  void grow();

  std::deque<Group> groups_;     // none of the lists is copied when it grows
  std::deque<uint64_t> times_;   // of arrivals; of one that is matched how long it took
  std::deque<uint32_t> next_;    // of the same group
  std::vector<uint32_t> slots_;  // numbers of groups by the hash; kNone: free
  uint64_t matched_ = 0;
};

}  // namespace quopa
