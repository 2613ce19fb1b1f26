// What the receiving ends at servers share: a queue from the library's thread to the loop, and the loop itself.
#ifndef KELVODRIX_NATS_INBOX_H
#define KELVODRIX_NATS_INBOX_H

#include <deque>
#include <mutex>
#include <vector>

#include "../kelvodrix/endpoint.h"
#include "session.h"

namespace kelvodrix {

// What the library's thread has taken in and the loop has not.
class Queue {
 public:
  Queue();
  // False where there is no room: at most so many messages, and bytes within bounds.
  bool put(Message message, size_t most_messages = SIZE_MAX);
  std::deque<Message> take_all();
  int ready() const { return ready_.get(); }  // can be read from when there is something

 private:
  const Fd ready_;
  std::mutex mutex_;  // guards what follows
  std::deque<Message> messages_;
  size_t bytes_ = 0;
};

class ServerInbox : public Inbox {
 public:
  int32_t run(Loop &loop) override;

 protected:
  virtual void handle(Loop &loop, const Message &message) = 0;
  virtual void acknowledge() = 0;
  virtual void finish() {}  // when the loop has been stopped
  // When nothing is at hand; anything but KELVODRIX_OK ends the loop.
  virtual int32_t idle() { return KELVODRIX_OK; }

  // Asks until somebody answers, so often, or the server says that nobody listens there.
  int32_t require_alone(const std::string &subject, int questions) const;
  void drop(Loop &loop, const Message &message);

  std::shared_ptr<Session> session_;
  std::shared_ptr<Queue> queue_;
  const Message &latest() const { return done_.back(); }  // that is or was handled
  int look_ms_ = 1000;                                    // how often there is an idle()

 private:
  void wait(Loop &loop) const;

  // The loop's own.
  std::deque<Message> at_hand_;
  std::vector<Message> done_;  // some; each that goes by itself wakes a thread of the library
  size_t done_bytes_ = 0;
  bool complained_ = false;
};

}  // namespace kelvodrix

#endif
