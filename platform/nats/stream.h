// A stream on a server: a table's frames, or how far its receivers have come.
#ifndef KELVODRIX_NATS_STREAM_H
#define KELVODRIX_NATS_STREAM_H

#include "session.h"

namespace kelvodrix {

inline constexpr int64_t kCallMs = 2000;  // how long a call for a stream may take

// What a stream says of a message that was sent to it.
struct Stored {
  uint64_t at = 0;  // its place; 0: it was not stored
  jsErrCode error{};
};
Stored read_stored(natsMsg *answer);

class Stream {
 public:
  Stream(std::shared_ptr<Session> session, const std::string &name) : session_(std::move(session)), name_(name) {}

  // Makes the stream unless it is there, and unless it is only looked at.
  int32_t open(bool makes = true);
  // What has come of a call for the stream.
  int32_t status(natsStatus status, jsErrCode error) const;

  const char *name() const { return name_.c_str(); }
  jsCtx *js() const { return js_.get(); }
  const Session &session() const { return *session_; }
  // With the subjects that there are or the places that were deleted, when they are asked for.
  enum Details : uint8_t { kNone, kSubjects, kDeleted };
  int32_t info(Owned<jsStreamInfo> &info, Details details = kNone) const;
  // The message at a place, or the last one of a subject; null where there is none.
  int32_t get(uint64_t place, Message &message) const;
  int32_t get_last(const std::string &subject, Message &message) const;
  // Sends a message to it, and waits until it is stored or refused.
  natsStatus store(natsMsg *message, Stored &stored) const;
  // For a server that leads the stream and, as was seen of some, stores nothing until another one is to lead.
  void step_down() const;

 private:
  int32_t add() const;
  int32_t take(natsStatus status, jsErrCode error, natsMsg *got, Message &message) const;

  const std::shared_ptr<Session> session_;
  const std::string name_;
  Owned<jsCtx> js_;
};

}  // namespace kelvodrix

#endif
