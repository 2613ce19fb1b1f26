// A table's stream on a server, as its writer and its receivers see it.
#ifndef KELVODRIX_NATS_STREAM_H
#define KELVODRIX_NATS_STREAM_H

#include "session.h"

namespace kelvodrix {

inline constexpr int64_t kCallMs = 2000;  // how long a call for a stream may take

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
  natsStatus info(Owned<jsStreamInfo> &info, jsErrCode &error) const;
  natsStatus consumer(const std::string &name, Owned<jsConsumerInfo> &info, jsErrCode &error) const;

 private:
  int32_t add() const;

  const std::shared_ptr<Session> session_;
  const std::string name_;
  Owned<jsCtx> js_;
};

// The place up to which a consumer's frames are handled. A server that was restarted knows only where it was to begin
// until something new is acknowledged.
uint64_t floor_of(const jsConsumerInfo &info);

}  // namespace kelvodrix

#endif
