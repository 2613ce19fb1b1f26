// The sending end of one connection to one endpoint: numbers the frames and counts them until they are acknowledged.
// Not thread safe; its channel guards it.
#ifndef KELVODRIX_LINK_H
#define KELVODRIX_LINK_H

#include <chrono>
#include <deque>
#include <optional>
#include <span>

#include "kelvodrix.h"
#include "transport.h"

namespace kelvodrix {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

class Link {
 public:
  // Throws std::bad_alloc or std::system_error.
  Link(const Endpoint &endpoint, const kelvodrix_options &options);

  int32_t connect();

  // Sends one frame of frame_bytes bytes with the messages; waits for room and for a connection until the deadline.
  int32_t send(std::span<const DrixSendDescriptor> messages, size_t frame_bytes, Deadline deadline);

  // Takes in the acknowledgements that have arrived, and asks for one when none came for a while.
  void update();

  // Nothing is waiting for an acknowledgement.
  bool settled() const { return outstanding_.empty(); }
  uint64_t undelivered_messages() const { return outstanding_messages_ + lost_messages_; }

 private:
  struct Outstanding {
    uint32_t messages;
    size_t bytes;
  };

  int32_t await_room(size_t frame_bytes, Deadline deadline);
  bool fits(size_t frame_bytes) const;
  bool connected() const;
  bool transmit(Part &frame);
  void settle(uint64_t first, uint64_t last, uint64_t settled);

  Endpoint endpoint_;
  kelvodrix_options options_;
  Socket socket_;
  std::optional<Socket> presence_;  // a second, silent connection, which shows whether a receiver is there
  uint64_t id_;
  uint64_t sequence_ = 0;                // of the last frame sent
  std::deque<Outstanding> outstanding_;  // the last frames sent, oldest first
  size_t outstanding_bytes_ = 0;
  uint64_t outstanding_messages_ = 0;
  uint64_t lost_messages_ = 0;
  Deadline next_probe_;
};

}  // namespace kelvodrix

#endif
