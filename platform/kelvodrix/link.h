// The sending end of one connection to one endpoint: numbers the frames and counts them until they are acknowledged.
// Thread safe.
#ifndef KELVODRIX_LINK_H
#define KELVODRIX_LINK_H

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <span>

#include "kelvodrix.h"
#include "transport.h"

namespace kelvodrix {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

// How many messages are not acknowledged: still waiting for it, and lost for good.
struct Undelivered {
  uint64_t pending = 0;
  uint64_t lost = 0;
};

class Link {
 public:
  // Throws std::bad_alloc or std::system_error.
  Link(const Endpoint &endpoint, const kelvodrix_options &options);

  // Before the first send.
  int32_t connect();

  // Sends one frame of frame_bytes bytes with the messages; waits for room and for a connection until the deadline.
  int32_t send(std::span<const DrixSendDescriptor> messages, size_t frame_bytes, Deadline deadline);

  // Takes in the acknowledgements that have arrived, and asks for one when none came for a while. Never waits.
  Undelivered update();

  // Sends nothing from now on; a send that is waiting ends with KELVODRIX_ERR_HANDLE.
  Undelivered close();

 private:
  struct Outstanding {
    uint32_t messages;
    size_t bytes;
  };

  // All of these are called with the mutex locked.
  bool fits(size_t frame_bytes) const;
  bool connected() const;
  bool send_data(std::span<const DrixSendDescriptor> messages, size_t frame_bytes);
  bool transmit(Part &frame);
  void take_in();
  void settle(uint64_t first, uint64_t last, uint64_t settled);
  void wait(std::unique_lock<std::mutex> &lock, int32_t obstacle, Deadline deadline);

  const Endpoint endpoint_;
  const kelvodrix_options options_;
  const uint64_t id_;

  // Guards what follows, and is never held for long: a thread that has to wait for its frame's turn, for room or for a
  // connection lets it go meanwhile. One thread at a time waits for room or connection; the sockets are its own then.
  std::mutex mutex_;
  std::condition_variable turn_;
  int32_t waiting_for_ = KELVODRIX_OK;  // what that thread's send fails with at its deadline
  bool closed_ = false;
  Socket socket_;
  std::optional<Socket> presence_;       // a second, silent connection, which shows whether a receiver is there
  uint64_t sequence_ = 0;                // of the last frame sent
  std::deque<Outstanding> outstanding_;  // the last frames sent, oldest first
  size_t outstanding_bytes_ = 0;
  Undelivered undelivered_;
  Deadline next_probe_;
};

}  // namespace kelvodrix

#endif
