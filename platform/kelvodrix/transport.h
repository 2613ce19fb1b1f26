// What channels and receivers ask of a transport, what a transport asks of them, and how one is chosen.
#ifndef KELVODRIX_TRANSPORT_H
#define KELVODRIX_TRANSPORT_H

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <span>

#include "kelvodrix.h"

namespace kelvodrix {

using Clock = std::chrono::steady_clock;
using Deadline = Clock::time_point;

struct Undelivered {
  uint64_t messages = 0;  // not acknowledged
  bool pending = false;   // some of them may still be
};

// The sending end at one endpoint: numbers the frames and counts them until they are acknowledged. Thread safe.
class Link {
 public:
  virtual ~Link() = default;

  // Tells whether there is something left to be written.
  virtual int32_t send(std::span<const DrixSendDescriptor> messages, bool &left) = 0;

  // Writes and reads what there is until everything is acknowledged or lost, or until then. Adds what is not
  // acknowledged to the total. To close it means that it sends nothing from now on.
  virtual void settle(Deadline until, bool close, Undelivered &total) = 0;

  // What was sent since the last one is the whole table. A link that keeps nothing has nothing to do.
  virtual int32_t checkpoint() { return KELVODRIX_OK; }

  // Writes what there is; true while that is not all.
  virtual bool write_left() = 0;

  // Writes all that there is, unless the receiver leaves no room for it for as long as a send may wait.
  virtual void finish(Deadline start) = 0;
};

// A receiver, as its inbox sees it.
class Loop {
 public:
  // Handles a well-formed frame. What it throws is the end of the thread.
  virtual void deliver(std::span<const uint8_t> frame) = 0;
  virtual void count_malformed() = 0;

  bool stopped() const { return stopped_; }
  int wake_up() const { return wake_up_; }  // can be read from after a stop
  int cancel_state() const { return cancel_state_; }
  void take_wake_up() const {
    uint64_t count;  // a stop may write after the loop that it has ended
    [[maybe_unused]] const ssize_t got = read(wake_up_, &count, sizeof(count));
  }

 protected:
  ~Loop() = default;

  std::atomic<bool> stopped_ = false;
  int wake_up_ = -1;
  int cancel_state_ = 0;  // for when it waits and for subscribers
};

// The receiving end at one endpoint.
class Inbox {
 public:
  virtual ~Inbox() = default;

  // Receives frames and has them handled until the loop is stopped.
  virtual int32_t run(Loop &loop) = 0;
};

// Who looks on at one endpoint.
class Tap {
 public:
  virtual ~Tap() = default;

  virtual int32_t next(Deadline until, kelvodrix_frame &frame) = 0;
  virtual void stop() = 0;
  virtual kelvodrix_tap_counters counters() const = 0;
};

int32_t make_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link);
int32_t make_inbox(const char *endpoint, std::unique_ptr<Inbox> &inbox);
int32_t make_tap(const char *endpoint, const kelvodrix_tap_options &options, std::unique_ptr<Tap> &tap);

// What libkelvodrix_nats.so exports as kelvodrix_nats. The version counts the changes of this header.
inline constexpr uint32_t kTransportVersion = 3;
struct Transport {
  uint32_t version;
  int32_t (*make_link)(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link);
  int32_t (*make_inbox)(const char *endpoint, std::unique_ptr<Inbox> &inbox);
  int32_t (*make_tap)(const char *endpoint, const kelvodrix_tap_options &options, std::unique_ptr<Tap> &tap);
};

}  // namespace kelvodrix

#endif
