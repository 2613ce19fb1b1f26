// This process's connections to servers, and what crosses them.
//
//   drix.NAME.hello   asks who receives at NAME: u64 instance, u64 number, both 0 where there is nothing to be told.
//                     Answered at once with u64 instance, or by the server: nobody. The instance named there also
//                     acknowledges, in its turn, that it has seen all frames up to the number that it will see.
//   drix.NAME.m.ID    u64 instance of the receiver that it is for, then a frame as in frame.h; ID is that of all its
//                     messages in eight hexadecimal digits, or "mixed"; with the sender's inbox for answers
//   the inbox         answers to hello, and acknowledgements: u64 instance, u64 first, u64 last. These frames are handled,
//                     and those before them that were not acknowledged are lost.
//
// The instance is a random number that a receiver draws: what is meant for one of before is not handled by another.
#ifndef KELVODRIX_NATS_SESSION_H
#define KELVODRIX_NATS_SESSION_H

#include <nats/nats.h>

#include <functional>
#include <string>

#include "../kelvodrix/transport.h"

namespace kelvodrix {

inline constexpr size_t kInstanceBytes = 8, kHelloBytes = 16, kReceiptBytes = 24;

int32_t make_nats_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link);

// Where an endpoint is.
struct Place {
  std::string servers;  // with the scheme
  std::string subject;  // what the subjects of the endpoint start with
};
int32_t parse_place(const char *endpoint, Place &place);

// Whether this process is a child of one that has used the library, which does not work here then.
bool forked();

uint64_t random_number();

// One connection for all senders of a process that use the same servers, whose frames are gathered for up to a millisecond,
// and one for all receivers, whose answers are written at once. Once made, it connects again by itself.
class Session {
 public:
  // Connects within so many milliseconds, unless there is a connection.
  static int32_t get(const std::string &servers, bool at_once, int64_t timeout_ms, std::shared_ptr<Session> &session);
  ~Session();

  natsConnection *nc() const { return nc_; }
  std::string inbox() const;  // a new subject for answers
  bool closed() const { return natsConnection_IsClosed(nc_); }
  void flush(int64_t timeout_ms) const;
  // KELVODRIX_OK when there is nothing wrong with the connection.
  int32_t status() const;
  void forget_denials() const { *denied_ = false; }

 private:
  int32_t connect(const std::string &servers, bool at_once, int64_t timeout_ms);

  natsConnection *nc_ = nullptr;
  std::string inbox_prefix_ = "_INBOX";
  const std::shared_ptr<std::atomic<bool>> denied_ = std::make_shared<std::atomic<bool>>(false);
};

struct Destroy {
  void operator()(natsMsg *message) const { natsMsg_Destroy(message); }
  void operator()(natsOptions *options) const { natsOptions_Destroy(options); }
};
using Message = std::unique_ptr<natsMsg, Destroy>;

// Ends with the session's thread perhaps still in the function, which therefore owns what it needs.
class Subscription {
 public:
  using Take = std::function<void(natsConnection *, Message)>;
  Subscription(std::shared_ptr<Session> session, const std::string &subject, Take take);
  ~Subscription();

 private:
  const std::shared_ptr<Session> session_;
  natsSubscription *sub_ = nullptr;
};

}  // namespace kelvodrix

#endif
