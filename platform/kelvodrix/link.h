// The sending end of one connection to one endpoint: numbers the frames and counts them until they are acknowledged.
// Thread safe.
#ifndef KELVODRIX_LINK_H
#define KELVODRIX_LINK_H

#include <chrono>
#include <deque>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

#include "endpoint.h"
#include "frame.h"

namespace kelvodrix {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

struct Undelivered {
  uint64_t messages = 0;  // not acknowledged
  bool pending = false;   // some of them may still be
};

class Link {
 public:
  Link(const Endpoint &endpoint, const kelvodrix_options &options) : endpoint_(endpoint), options_(options) {}

  // Tells whether there is something left to be written.
  int32_t send(std::span<const DrixSendDescriptor> messages, bool &left);

  // Writes and reads what there is until everything is acknowledged or lost, or until then. Adds what is not
  // acknowledged to the total. To close it means that it sends nothing from now on.
  void settle(Deadline until, bool close, Undelivered &total);

  // Writes what there is; true while that is not all.
  bool write_left();

  // Writes all that there is, unless the receiver leaves no room for it for as long as a send may wait.
  void finish(Deadline start);

 private:
  struct Sent {
    uint32_t messages;
    size_t bytes;
  };

  // All of these are called with the mutex locked.
  void disconnect();
  void drop_out();
  int32_t append(std::span<const DrixSendDescriptor> messages, size_t frame_bytes);
  int32_t write_out();
  void take_in();
  bool acknowledge(uint64_t number);
  void wait(std::unique_lock<std::mutex> &lock, Deadline deadline);
  bool fits(size_t frame_bytes) const;
  size_t unwritten() const { return out_.size() - written_; }

  const Endpoint endpoint_;
  const kelvodrix_options options_;

  std::mutex mutex_;  // guards what follows; let go while somebody waits
  bool closed_ = false;
  std::shared_ptr<Fd> fd_;      // shared with those who wait; null: not connected
  uint64_t sent_ = 0;           // number of the last frame for this connection
  std::deque<Sent> in_flight_;  // the frames up to there that are not acknowledged
  size_t in_flight_bytes_ = 0;
  uint64_t undelivered_ = 0;  // messages, those of former connections included
  std::vector<uint8_t> out_;  // the last frames, and how much of them is written
  size_t written_ = 0;
  Deadline last_look_;  // for acknowledgements
};

}  // namespace kelvodrix

#endif
