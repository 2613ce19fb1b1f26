// This process's connections to servers, and what crosses them.
//
//   drix.NAME.hello   asks who receives at NAME: u64 instance, u64 number, both 0 where there is nothing to be told.
//                     Answered at once with u64 instance, or by the server: nobody. The instance named there also
//                     acknowledges, in its turn, that it has seen all frames up to the number that it will see.
//   drix.NAME.m.ID    u64 instance of the receiver that it is for, then one frame or more as in frame.h; ID is that of all
//                     their messages in eight hexadecimal digits, or "mixed"; with the sender's inbox for answers
//   the inbox         answers to hello, and acknowledgements: u64 instance, u64 first, u64 last. These frames are handled,
//                     and those before them that were not acknowledged are lost.
//
// The instance is a random number that a receiver draws: what is meant for one of before is not handled by another.
//
// Streams, one a table, named drix-TABLE:
//
//   drix-stream.TABLE.m.ID   a frame as in frame.h, with how many messages the writer has sent before as its number, and
//                            as Nats-Msg-Id WRITER-NUMBER
//   drix-stream.TABLE.w      a frame of no messages: the writer WRITER, a random number in sixteen hexadecimal digits,
//                            has begun, and those before it are writers no more
//   drix-stream.TABLE.c      a frame of no messages: a place that receivers had passed before servers lost what was there
//
// All frames but the first of a writer name the place of the one before in the stream, Nats-Expected-Last-Sequence: they
// are stored there and in this order, or not at all.
//
//   $KV.drix-TABLE.RECEIVER  how far the receiver has come, a key of the bucket drix-TABLE: the place of the last frame that
//                            it has handled, when the stream was made, and a random number that its process has drawn
//   $KV.drix-TABLE.writer.current  the writer that has begun last
//   drix-receiver.TABLE.RECEIVER  asks whether somebody receives under this name, which only the server answers: nobody
#ifndef KELVODRIX_NATS_SESSION_H
#define KELVODRIX_NATS_SESSION_H

#include <nats/nats.h>

#include <functional>
#include <mutex>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "../kelvodrix/transport.h"

namespace kelvodrix {

inline constexpr size_t kInstanceBytes = 8, kHelloBytes = 16, kReceiptBytes = 24;
inline constexpr int64_t kConnectMs = 2000;
inline constexpr size_t kMessageCosts = 256;  // bytes of memory, besides its own

inline constexpr std::string_view kBucket = "KV_";  // what a bucket's stream is called, before the bucket's name

// Where an endpoint is.
struct Place {
  std::string servers;  // with the scheme
  std::string subject;  // what the subjects of the endpoint start with
  std::string stream;   // empty: there is none, frames go from sender to receiver directly
  std::string bucket;   // the stream of how far its receivers have come
  std::string floor;    // the key of this end of a stream
  std::string alive;    // on which it listens
  std::string from;     // table, resume or now
};
int32_t parse_place(const char *endpoint, bool receives, Place &place);

std::shared_ptr<Link> make_direct_link(const Place &place, const kelvodrix_options &options);
std::shared_ptr<Link> make_stream_link(const Place &place, const kelvodrix_options &options);
int32_t make_direct_inbox(const Place &place, std::unique_ptr<Inbox> &inbox);
int32_t make_stream_inbox(const Place &place, std::unique_ptr<Inbox> &inbox);
int32_t make_nats_tap(const char *endpoint, const kelvodrix_tap_options &options, std::unique_ptr<Tap> &tap);

// Publishes what the process's links to receivers have kept.
void finish_links();

// Has what the process's streams have taken stored, each for as long as a send may wait.
void finish_streams();

// ID of the messages in eight hexadecimal digits, or "mixed".
std::string id_subject(std::span<const DrixSendDescriptor> messages);

// What the file with the settings says beside credentials.
struct Settings {
  std::string inbox_prefix = "_INBOX";
  int64_t replicas = 0;  // of a stream; 0: three in a cluster
  int64_t max_bytes = 256 << 20;
};

// Whether this process is a child of one that has used the library, which does not work here then.
bool forked();

uint64_t random_number();

// One connection for all senders of a process to receivers at the same servers, which join small frames, one for those to
// streams, whose frames are gathered for up to a millisecond, one for all receivers, and one for taps, whose subscriptions
// are served by one thread, so that frames keep their order. Once made, it connects again by itself.
enum class Use : uint8_t { joining, sending, receiving, tapping };

struct Destroy {
  void operator()(natsMsg *message) const { natsMsg_Destroy(message); }
  void operator()(natsOptions *options) const { natsOptions_Destroy(options); }
  void operator()(jsCtx *context) const { jsCtx_Destroy(context); }
  void operator()(jsStreamInfo *info) const { jsStreamInfo_Destroy(info); }
  void operator()(jsConsumerInfo *info) const { jsConsumerInfo_Destroy(info); }
  void operator()(natsSubscription *subscription) const { natsSubscription_Destroy(subscription); }
  void operator()(jsMsgMetaData *data) const { jsMsgMetaData_Destroy(data); }
};
template <typename Of>
using Owned = std::unique_ptr<Of, Destroy>;
using Message = Owned<natsMsg>;

class Session {
 public:
  // Connects within so many milliseconds, unless there is a connection.
  static int32_t get(const std::string &servers, Use use, int64_t timeout_ms, std::shared_ptr<Session> &session);
  ~Session();

  natsConnection *nc() const { return nc_; }
  const Settings &settings() const { return settings_; }
  std::string inbox() const;  // a new subject for answers
  bool closed() const { return natsConnection_IsClosed(nc_); }
  bool connected() const { return natsConnection_Status(nc_) == NATS_CONN_STATUS_CONNECTED; }
  void flush(int64_t timeout_ms) const;
  // Unsubscribes, and destroys the subscription when the library's thread that reads can not be about to give it a message,
  // as that one does not hold on to it: when it has read an answer since, or is no more.
  void bury(natsSubscription *subscription);
  // KELVODRIX_OK when there is nothing wrong with the connection.
  int32_t status() const;
  void forget_denials() const { *denied_ = false; }

 private:
  int32_t connect(const std::string &servers, Use use, int64_t timeout_ms);

  natsConnection *nc_ = nullptr;
  Settings settings_;
  std::mutex mutex_;  // guards what follows
  std::vector<Owned<natsSubscription>> buried_;
  const std::shared_ptr<std::atomic<bool>> denied_ = std::make_shared<std::atomic<bool>>(false);
};

inline std::span<const uint8_t> bytes_of(const natsMsg *message) {
  return {reinterpret_cast<const uint8_t *>(natsMsg_GetData(message)),
          static_cast<size_t>(natsMsg_GetDataLength(message))};
}
inline std::string_view text_of(const natsMsg *message) {
  return {natsMsg_GetData(message), static_cast<size_t>(natsMsg_GetDataLength(message))};
}
// With one header; more are set later.
Message make_message(const std::string &subject, const std::string &reply, std::span<const uint8_t> bytes,
                     const char *header, const std::string &value);
void set_header(natsMsg *message, const char *name, const std::string &value);
// Empty without such a header.
inline std::string_view header_of(natsMsg *message, const char *name) {
  const char *value = nullptr;
  return natsMsgHeader_Get(message, name, &value) == NATS_OK && value != nullptr ? value : "";
}

// Ends with the session's thread perhaps still in the function, which therefore owns what it needs.
class Subscription {
 public:
  using Take = std::function<void(natsConnection *, Message)>;
  Subscription(std::shared_ptr<Session> session, const std::string &subject, Take take);
  ~Subscription();
  void drain(int64_t timeout_ms);  // has nothing more come than was sent before

 private:
  const std::shared_ptr<Session> session_;
  natsSubscription *sub_ = nullptr;
};

}  // namespace kelvodrix

#endif
