// The sending side of a live table, without a bus: the table, what has changed in it, and for each receiver a stream
// that knows how far that one has got. docs/live-table.md has the protocol.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <variant>
#include <vector>

#include "fib6Sync.h"
#include "live_record.h"
#include "live_table.h"

namespace live {

// The table, and a journal of its changes: of what changed, not into what. A stream that comes to an entry sends what
// there is then, so that many changes of a route reach a slow receiver as one.
class Feed final : private LiveTable::Observer {
 public:
  explicit Feed(uint32_t generation) : generation_(generation) {}

  LiveTable &table() { return table_; }
  const LiveTable &table() const { return table_; }
  Summary summary() const { return summarize(generation_, table_); }

  void name_interface(uint32_t number, const std::string &name);
  // Empty when it has none.
  const std::string &interface_name(uint32_t number) const;

  // Positions in the journal count all changes since the feed was made.
  uint64_t changes() const { return forgotten_ + journal_.size(); }

  // Forgets the changes before a position, which all streams have passed.
  void forget(uint64_t before);

 private:
  friend class Stream;

  struct Change {
    enum What : uint8_t { kRoute, kUnusedGroup, kInterfaceName } what;
    uint32_t number;  // of the group or the interface
    RouteKey key;
  };

  void on_route(const RouteKey &key) override { journal_.push_back({Change::kRoute, 0, key}); }
  void on_unused_group(uint32_t group) noexcept override { journal_.push_back({Change::kUnusedGroup, group, {}}); }
  const Change &change(uint64_t position) const { return journal_[static_cast<std::size_t>(position - forgotten_)]; }

  uint32_t generation_;
  std::deque<Change> journal_;
  uint64_t forgotten_ = 0;
  std::map<uint32_t, std::string> interface_names_;
  LiveTable table_{this};
};

// What one call of the bus sends: messages of one type.
using Batch = std::variant<std::vector<fib6Sync_ipv6FwdUpdateMsg>, std::vector<fib6Sync_ipv6FwdDelMsg>,
                           std::vector<fib6Sync_nhp6GroupUpdateMsg>, std::vector<fib6Sync_nhp6GroupNodeUpdateMsg>,
                           std::vector<fib6Sync_nhp6GroupDelMsg>, std::vector<fib6Sync_svcCtxMsg>>;

// What one receiver gets: first the whole table, then each change.
class Stream {
 public:
  Stream(const Feed &feed, uint32_t number) : feed_(feed), number_(number), position_(feed.changes()) {}

  uint32_t number() const { return number_; }

  // The next messages to be sent, null when the receiver has been sent all that there is. Stays the same until it is
  // taken away with sent().
  const Batch *next();
  void sent() { batches_.pop_front(); }

  // Puts a summary of the table behind all that there is, unless some of that is still to be sent.
  void beat();

  // The next change that the stream will look at.
  uint64_t position() const { return position_; }

  uint64_t messages() const { return messages_; }

 private:
  static constexpr std::size_t kBatch = 256;  // messages

  void fill();
  void fill_from_table();
  void fill_from_journal();
  bool full() const { return messages_ - messages_before_ >= kBatch; }

  void put_route(const RouteKey &key);
  void put_routes_next_hops(const RouteKey &key, const LiveTable::Route &route);
  void put_interface(uint32_t number);
  template <class Message>
  void put(Message message);

  const Feed &feed_;
  uint32_t number_;
  uint64_t position_;
  enum { kBeginning, kInTable, kCatchingUp, kLive } state_ = kBeginning;
  std::optional<RouteKey> last_;  // of the table's routes, as far as the stream has come
  std::set<uint32_t> groups_;
  std::set<uint32_t> interfaces_;  // whose names the receiver has
  std::deque<Batch> batches_;
  uint64_t messages_ = 0;
  uint64_t messages_before_ = 0;  // the batches were filled
};

}  // namespace live
