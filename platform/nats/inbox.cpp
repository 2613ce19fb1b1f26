// The receiving end at an endpoint of a server.
#include "inbox.h"

#include <poll.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <cstdio>
#include <optional>

#include "../kelvodrix/frame.h"
#include "../kelvodrix/process.h"
#include "../kelvodrix/status.h"

namespace kelvodrix {

namespace {

constexpr int64_t kAnyoneThereMs = 250;
constexpr int kQuestionsIfDirect = 2;
constexpr uint64_t kMaxUnacknowledged = 64;     // frames
constexpr size_t kMostQueuedBytes = 128 << 20;  // and as many that the loop has taken and not handled
constexpr size_t kMostQueuedToAsk = 4096;
constexpr size_t kMostDone = 64, kMostDoneBytes = 1 << 20;

}  // namespace

Queue::Queue() : ready_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (!ready_) throw std::bad_alloc();
}

bool Queue::put(Message message, size_t most_messages) {
  const size_t cost = kMessageCosts + bytes_of(message.get()).size();
  std::lock_guard lock(mutex_);
  if (bytes_ + cost > kMostQueuedBytes || messages_.size() > most_messages) return false;
  bytes_ += cost;
  messages_.push_back(std::move(message));
  const uint64_t one = 1;
  if (messages_.size() == 1) [[maybe_unused]]
    const ssize_t written = write(ready(), &one, sizeof(one));
  return true;
}

std::deque<Message> Queue::take_all() {
  uint64_t count;
  [[maybe_unused]] const ssize_t got = read(ready(), &count, sizeof(count));
  std::lock_guard lock(mutex_);
  bytes_ = 0;
  return std::exchange(messages_, {});
}

int32_t ServerInbox::run(Loop &loop) {
  if (forked()) return KELVODRIX_ERR_FORKED;
  while (!loop.stopped()) {
    if (at_hand_.empty()) at_hand_ = queue_->take_all();
    if (at_hand_.empty()) {
      acknowledge();
      if (session_->closed()) return KELVODRIX_ERR_CREDENTIALS;
      if (const int32_t status = idle(); status != KELVODRIX_OK) return status;
      wait(loop);
      continue;
    }
    if (done_bytes_ > kMostDoneBytes || done_.size() == kMostDone) {
      done_.clear();
      done_bytes_ = 0;
    }
    done_.push_back(std::move(at_hand_.front()));
    at_hand_.pop_front();
    done_bytes_ += bytes_of(latest().get()).size();
    handle(loop, latest());
  }
  acknowledge();
  finish();
  return KELVODRIX_OK;
}

void ServerInbox::wait(Loop &loop) const {
  pollfd items[] = {{loop.wake_up(), POLLIN, 0}, {queue_->ready(), POLLIN, 0}};
  {
    const CancelState waiting(loop.cancel_state());
    poll(items, 2, look_ms_);
  }
  if (items[0].revents != 0) loop.take_wake_up();
}

int32_t ServerInbox::require_alone(const std::string &subject, int questions) const {
  natsStatus asked = NATS_TIMEOUT;
  for (; questions != 0 && asked == NATS_TIMEOUT; --questions) {  // the server may not know yet who is gone
    natsMsg *answer = nullptr;
    asked = natsConnection_RequestString(&answer, session_->nc(), subject.c_str(), "", kAnyoneThereMs);
    natsMsg_Destroy(answer);
  }
  const int32_t status = session_->status();
  return status != KELVODRIX_OK || asked == NATS_NO_RESPONDERS ? status : KELVODRIX_ERR_IN_USE;
}

void ServerInbox::drop(Loop &loop, const Message &message) {
  if (!std::exchange(complained_, true))
    std::fprintf(stderr, "kelvodrix: dropped what is no frame of this version, from %.200s; no more is said of such\n",
                 natsMsg_GetSubject(message.get()));
  loop.count_malformed();
}

namespace {

class DirectInbox final : public ServerInbox {
 public:
  // Subscribes unless somebody else has.
  int32_t open(const Place &place) {
    const SignalsHeldBack held_back;
    if (const int32_t status = Session::get(place.servers, Use::receiving, kConnectMs, session_);
        status != KELVODRIX_OK)
      return status;
    session_->forget_denials();  // of other endpoints
    hello_ = place.subject + "hello";
    if (const int32_t status = require_alone(hello_, kQuestionsIfDirect); status != KELVODRIX_OK) return status;
    queue_ = std::make_shared<Queue>();
    frames_.emplace(session_, place.subject + ">",
                    [queue = queue_, hello = hello_, instance = instance_](natsConnection *nc, Message message) {
                      const bool asked_us = hello == natsMsg_GetSubject(message.get());
                      if (asked_us) answer(nc, message, instance);
                      // Where there is no room, whoever has sent it will learn of the gap, or asks again.
                      queue->put(std::move(message), asked_us ? kMostQueuedToAsk : SIZE_MAX);
                    });
    if (natsConnection_FlushTimeout(session_->nc(), kConnectMs) != NATS_OK) return KELVODRIX_ERR_SERVER;
    return session_->status();
  }

  int32_t run(Loop &loop) override {
    if (!forked()) handle_rest(loop);
    return ServerInbox::run(loop);
  }

 private:
  static void answer(natsConnection *nc, const Message &message, uint64_t instance) {
    uint8_t own[kInstanceBytes];
    store(own, instance);
    if (const char *const to = natsMsg_GetReply(message.get())) natsConnection_Publish(nc, to, own, sizeof(own));
  }

  void handle(Loop &loop, const Message &message) override {
    const std::span<const uint8_t> bytes = bytes_of(message.get());
    const char *const reply = natsMsg_GetReply(message.get());
    if (hello_ == natsMsg_GetSubject(message.get())) {
      if (bytes.size() == kHelloBytes && reply != nullptr && load<uint64_t>(&bytes[0]) == instance_)
        tell_seen(reply, load<uint64_t>(&bytes[8]));
      return;
    }
    const bool has_instance = bytes.size() >= kInstanceBytes && reply != nullptr;
    const auto frames = bytes.subspan(has_instance ? kInstanceBytes : bytes.size());
    if (!are_frames(frames)) return drop(loop, message);
    if (load<uint64_t>(&bytes[0]) != instance_)  // they count as lost
      return answer(session_->nc(), message, instance_);
    if (to_ != reply) {
      acknowledge();
      to_ = reply;
      first_ = 1;
      last_ = 0;
    }
    rest_ = frames;
    handle_rest(loop);
  }

  // A stop leaves what is behind the frame that is being handled.
  void handle_rest(Loop &loop) {
    while (!rest_.empty() && !loop.stopped()) handle(loop, take_frame(rest_));
  }

  void handle(Loop &loop, std::span<const uint8_t> frame) {
    const auto number = load<uint64_t>(&frame[8]);
    if (number <= last_) return drop(loop, latest());
    if (number != last_ + 1) {  // frames are missing
      acknowledge();
      first_ = number;
    }
    last_ = number - 1;
    try {
      loop.deliver(frame);
    } catch (...) {
      acknowledge();  // what was before it; the frame itself is a gap from now on
      throw;
    }
    last_ = number;
    if (last_ - first_ + 1 >= kMaxUnacknowledged) acknowledge();
  }

  void acknowledge() override {
    if (last_ >= first_ && receipt(to_.c_str(), first_, last_)) first_ = last_ + 1;
  }

  // In its turn: frames up to the number that have not come by now will not come.
  void tell_seen(const char *to, uint64_t number) {
    acknowledge();
    if (number != 0) receipt(to, number + 1, number);
  }

  bool receipt(const char *to, uint64_t first, uint64_t last) const {
    uint8_t bytes[kReceiptBytes];
    store(store(store(bytes, instance_), first), last);
    return natsConnection_Publish(session_->nc(), to, bytes, sizeof(bytes)) == NATS_OK;
  }

  const uint64_t instance_ = random_number();
  std::string hello_;
  std::optional<Subscription> frames_;

  // The loop's own.
  std::span<const uint8_t> rest_;  // of the message, not handled
  std::string to_;                 // whose frames these are, handled and not acknowledged
  uint64_t first_ = 1, last_ = 0;
};

int32_t make_nats_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link) {
  Place place;
  const int32_t status = parse_place(endpoint, false, place);
  if (status == KELVODRIX_OK)
    link = place.stream.empty() ? make_direct_link(place, options) : make_stream_link(place, options);
  return status;
}

int32_t make_nats_inbox(const char *endpoint, std::unique_ptr<Inbox> &inbox) {
  Place place;
  const int32_t status = parse_place(endpoint, true, place);
  if (status != KELVODRIX_OK) return status;
  return place.stream.empty() ? make_direct_inbox(place, inbox) : make_stream_inbox(place, inbox);
}

}  // namespace

int32_t make_direct_inbox(const Place &place, std::unique_ptr<Inbox> &inbox) {
  auto made = std::make_unique<DirectInbox>();
  const int32_t status = made->open(place);
  if (status == KELVODRIX_OK) inbox = std::move(made);
  return status;
}

}  // namespace kelvodrix

extern "C" {
extern const kelvodrix::Transport kelvodrix_nats;
const kelvodrix::Transport kelvodrix_nats = {kelvodrix::kTransportVersion, kelvodrix::make_nats_link,
                                             kelvodrix::make_nats_inbox, kelvodrix::make_nats_tap};
}
