// The receiving side of a live table, without a bus: takes the messages of its stream, holds the table, knows whether
// it is whole, and what to ask the sender for. docs/live-table.md has the protocol.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "fib6Sync.h"
#include "live_record.h"
#include "live_table.h"

namespace live {

class Mirror {
 public:
  // Streams are numbered from first on, which should be another number than any receiver at this endpoint had before.
  explicit Mirror(uint32_t first, LiveTable::Observer *observer = nullptr) : stream_(first - 1), table_(observer) {}

  // The messages of a stream, and of former streams, which are left alone.
  void take(const fib6Sync_ipv6FwdUpdateMsg &message);
  void take(const fib6Sync_ipv6FwdDelMsg &message);
  void take(const fib6Sync_nhp6GroupUpdateMsg &message);
  void take(const fib6Sync_nhp6GroupNodeUpdateMsg &message);
  void take(const fib6Sync_nhp6GroupDelMsg &message);
  void take(const fib6Sync_svcCtxMsg &message);

  // To be called in regular intervals, each of which has left time to take messages.
  void tick();

  // Whether the table has to be asked for; then with the number of the stream to ask for, once.
  bool wants_table() const { return lost_ || again_; }
  std::optional<uint32_t> ask();

  // Whether the table is the sender's as of the last message. If not, it is a mixture of what it was before and what
  // has come since.
  bool whole() const { return whole_; }

  const LiveTable &table() const { return table_; }
  Summary summary() const { return summarize(generation_, table_); }
  std::string interface_name(uint32_t number) const;

  struct Counters {
    uint64_t messages = 0;  // taken
    uint64_t repeated = 0;
    uint64_t foreign = 0;  // of other streams
    uint64_t tables = 0;   // that have become whole
    uint64_t gaps = 0;
    uint64_t differences = 0;  // from what the sender says of its table
    uint64_t silences = 0;
  };
  const Counters &counters() const { return counters_; }

 private:
  // Ticks without a message after which the stream is asked for again, and those after which it is taken to be dead.
  static constexpr uint32_t kAskAgain = 5;
  static constexpr uint32_t kDead = 10;

  bool in_turn(const fib6Sync_tlv &header);
  void lose(uint64_t &reason);

  uint32_t stream_;
  uint32_t last_ = 0;  // message of the stream, 0: none has come
  bool lost_ = true;   // the stream is of no use any more, or there is none
  bool again_ = false;
  bool whole_ = false;
  uint32_t quiet_ticks_ = 0;
  uint32_t generation_ = 0;
  uint32_t pass_ = 0;  // of the table, in which this stream sets its routes
  LiveTable table_;
  std::map<uint32_t, NextHops> groups_;
  std::map<uint32_t, std::string> interface_names_;
  Counters counters_;
};

}  // namespace live
