// The receiving end at an endpoint of a server.
#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdio>
#include <deque>
#include <mutex>
#include <optional>
#include <string_view>

#include "../kelvodrix/endpoint.h"
#include "../kelvodrix/frame.h"
#include "../kelvodrix/process.h"
#include "../kelvodrix/status.h"
#include "session.h"

namespace kelvodrix {

namespace {

constexpr int64_t kConnectMs = 2000, kAnyoneThereMs = 250;
constexpr int kLookMs = 1000;
constexpr uint64_t kMaxUnacknowledged = 64;     // frames
constexpr size_t kMostQueuedBytes = 128 << 20;  // and as many that the loop has taken and not handled
constexpr size_t kMessageCosts = 256;           // bytes, besides its own
constexpr size_t kMostQueuedToAsk = 4096;

std::span<const uint8_t> bytes_of(const Message &message) {
  return {reinterpret_cast<const uint8_t *>(natsMsg_GetData(message.get())),
          static_cast<size_t>(natsMsg_GetDataLength(message.get()))};
}

// What the library's thread has taken in and the loop has not.
struct Queue {
  explicit Queue(std::string name) : hello(std::move(name)) {
    if (!ready) throw std::bad_alloc();
  }

  void take(natsConnection *nc, Message message) {
    const bool asked = hello == natsMsg_GetSubject(message.get());
    if (asked) answer(nc, message);
    const size_t cost = kMessageCosts + bytes_of(message).size();
    std::lock_guard lock(mutex);
    // Whoever has sent it will learn of the gap, or asks again.
    if (bytes + cost > kMostQueuedBytes || (asked && messages.size() > kMostQueuedToAsk)) return;
    bytes += cost;
    messages.push_back(std::move(message));
    const uint64_t one = 1;
    if (messages.size() == 1) [[maybe_unused]]
      const ssize_t written = write(ready.get(), &one, sizeof(one));
  }

  void answer(natsConnection *nc, const Message &message) const {
    uint8_t own[kInstanceBytes];
    store(own, instance);
    if (const char *const to = natsMsg_GetReply(message.get())) natsConnection_Publish(nc, to, own, sizeof(own));
  }

  const uint64_t instance = random_number();
  const std::string hello;
  const Fd ready{eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)};
  std::mutex mutex;  // guards what follows
  std::deque<Message> messages;
  size_t bytes = 0;
};

class NatsInbox final : public Inbox {
 public:
  // Subscribes unless somebody else has.
  int32_t open(const Place &place) {
    const SignalsHeldBack held_back;
    if (const int32_t status = Session::get(place.servers, true, kConnectMs, session_); status != KELVODRIX_OK)
      return status;
    session_->forget_denials();  // of other endpoints
    queue_ = std::make_shared<Queue>(place.subject + "hello");
    natsStatus asked = NATS_TIMEOUT;
    for (int tries = 2; tries != 0 && asked == NATS_TIMEOUT; --tries) {  // the server may not know yet who is gone
      natsMsg *answer = nullptr;
      asked = natsConnection_RequestString(&answer, session_->nc(), queue_->hello.c_str(), "", kAnyoneThereMs);
      natsMsg_Destroy(answer);
    }
    if (const int32_t status = session_->status(); status != KELVODRIX_OK) return status;
    if (asked != NATS_NO_RESPONDERS) return KELVODRIX_ERR_IN_USE;
    frames_.emplace(session_, place.subject + ">",
                    [queue = queue_](natsConnection *nc, Message message) { queue->take(nc, std::move(message)); });
    if (natsConnection_FlushTimeout(session_->nc(), kConnectMs) != NATS_OK) return KELVODRIX_ERR_SERVER;
    return session_->status();
  }

  int32_t run(Loop &loop) override {
    if (forked()) return KELVODRIX_ERR_FORKED;
    while (!loop.stopped()) {
      if (at_hand_.empty()) take_in();
      if (at_hand_.empty()) {
        acknowledge();
        if (session_->closed()) return KELVODRIX_ERR_CREDENTIALS;
        wait(loop);
        continue;
      }
      const Message message = std::move(at_hand_.front());
      at_hand_.pop_front();
      handle(loop, message);
    }
    acknowledge();
    return KELVODRIX_OK;
  }

 private:
  void take_in() {
    uint64_t count;
    [[maybe_unused]] const ssize_t got = read(queue_->ready.get(), &count, sizeof(count));
    std::lock_guard lock(queue_->mutex);
    at_hand_.swap(queue_->messages);
    queue_->bytes = 0;
  }

  void wait(Loop &loop) const {
    pollfd items[] = {{loop.wake_up(), POLLIN, 0}, {queue_->ready.get(), POLLIN, 0}};
    {
      const CancelState waiting(loop.cancel_state());
      poll(items, 2, kLookMs);
    }
    if (items[0].revents != 0) loop.take_wake_up();
  }

  void handle(Loop &loop, const Message &message) {
    const std::span<const uint8_t> bytes = bytes_of(message);
    const char *const reply = natsMsg_GetReply(message.get());
    if (queue_->hello == natsMsg_GetSubject(message.get())) {
      if (bytes.size() == kHelloBytes && reply != nullptr && load<uint64_t>(&bytes[0]) == queue_->instance)
        tell_seen(reply, load<uint64_t>(&bytes[8]));
      return;
    }
    const bool has_header = bytes.size() >= kInstanceBytes + kHeaderBytes && reply != nullptr;
    const auto frame = bytes.subspan(has_header ? kInstanceBytes : bytes.size());
    if (!has_header || frame.size() > KELVODRIX_MAX_FRAME_BYTES || load<uint32_t>(&frame[0]) != frame.size() ||
        !well_formed(frame))
      return drop(loop, natsMsg_GetSubject(message.get()));
    if (load<uint64_t>(&bytes[0]) != queue_->instance)  // it counts as lost
      return queue_->answer(session_->nc(), message);

    const auto number = load<uint64_t>(&frame[8]);
    if (to_ == reply && number <= last_) return drop(loop, natsMsg_GetSubject(message.get()));
    if (to_ != reply || number != last_ + 1) {  // another sender, or frames are missing
      acknowledge();
      to_ = reply;
      first_ = number;
    }
    last_ = number - 1;
    try {
      loop.deliver(frame);
    } catch (...) {
      acknowledge();
      last_ = number;  // the frame is neither handled again nor acknowledged
      first_ = number + 1;
      throw;
    }
    last_ = number;
    if (last_ - first_ + 1 >= kMaxUnacknowledged) acknowledge();
  }

  void drop(Loop &loop, const char *subject) {
    if (!std::exchange(complained_, true))
      std::fprintf(stderr,
                   "kelvodrix: dropped what is no frame of this version, from %.200s; no more is said of such\n",
                   subject);
    loop.count_malformed();
  }

  void acknowledge() {
    if (last_ >= first_ && receipt(to_.c_str(), first_, last_)) first_ = last_ + 1;
  }

  // In its turn: frames up to the number that have not come by now will not come.
  void tell_seen(const char *to, uint64_t number) {
    acknowledge();
    if (number != 0) receipt(to, number + 1, number);
  }

  bool receipt(const char *to, uint64_t first, uint64_t last) const {
    uint8_t bytes[kReceiptBytes];
    store(store(store(bytes, queue_->instance), first), last);
    return natsConnection_Publish(session_->nc(), to, bytes, sizeof(bytes)) == NATS_OK;
  }

  std::shared_ptr<Session> session_;
  std::shared_ptr<Queue> queue_;
  std::optional<Subscription> frames_;

  // The loop's own.
  std::deque<Message> at_hand_;
  std::string to_;  // whose frames these are, handled and not acknowledged
  uint64_t first_ = 1, last_ = 0;
  bool complained_ = false;
};

int32_t make_nats_inbox(const char *endpoint, std::unique_ptr<Inbox> &inbox) {
  Place place;
  if (const int32_t status = parse_place(endpoint, place); status != KELVODRIX_OK) return status;
  auto made = std::make_unique<NatsInbox>();
  const int32_t status = made->open(place);
  if (status == KELVODRIX_OK) inbox = std::move(made);
  return status;
}

}  // namespace

}  // namespace kelvodrix

extern "C" {
extern const kelvodrix::Transport kelvodrix_nats;
const kelvodrix::Transport kelvodrix_nats = {kelvodrix::kTransportVersion, kelvodrix::make_nats_link,
                                             kelvodrix::make_nats_inbox};
}
