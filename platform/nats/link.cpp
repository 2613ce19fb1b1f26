// The sending end at an endpoint of a server.
#include <algorithm>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "../kelvodrix/frame.h"
#include "../kelvodrix/window.h"
#include "session.h"

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;
using std::chrono::milliseconds;

constexpr milliseconds kLongestConnect(2000);
// How often one who waits asks who is there, and what became of the frames.
constexpr milliseconds kAskAgain(20);
// A receiver that was heard as long ago is asked first: it may have gone and another one come.
constexpr milliseconds kSurelyThere(1000);
// A frame is published at once unless so many are under way: then it waits for others to go with it, up to so many bytes
// and that part of the window, or until somebody writes what is left.
constexpr size_t kFramesToJoin = 8, kBytesToJoin = 30 << 10, kPartToJoin = 4;

// Shared with the library's thread.
struct State {
  explicit State(const kelvodrix_options &options) : window(options) {}

  std::mutex mutex;  // guards what follows
  std::condition_variable changed;
  Window window;
  bool present = false;
  uint64_t instance = 0;  // the last receiver that was present
  Deadline heard{};

  void take(const natsMsg *message) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(natsMsg_GetData(message));
    const auto length = static_cast<size_t>(natsMsg_GetDataLength(message));
    std::lock_guard lock(mutex);
    if (natsMsg_IsNoResponders(const_cast<natsMsg *>(message))) {
      present = false;
      window.lose_all();
    } else if (length == kInstanceBytes) {
      const auto from = load<uint64_t>(bytes);
      if (from != instance) window.lose_all();
      instance = from;
      present = true;
    } else if (length == kReceiptBytes && load<uint64_t>(bytes) == instance) {
      const auto first = load<uint64_t>(bytes + 8), last = load<uint64_t>(bytes + 16);
      if (first == 0 || last > window.last() || first > last + 1) return;  // nothing of ours
      window.settle(first, last);
    } else {
      return;
    }
    heard = Clock::now();
    changed.notify_all();
  }
};

class NatsLink;

struct Links {
  std::mutex mutex;
  std::set<NatsLink *> all;
};

// Never destroyed: threads may still be sending while the process exits.
Links &links() {
  static Links &instance = *new Links;
  return instance;
}

class NatsLink final : public Link {
 public:
  NatsLink(Place place, const kelvodrix_options &options)
      : place_(std::move(place)), options_(options), state_(std::make_shared<State>(options)) {
    const std::lock_guard lock(links().mutex);
    links().all.insert(this);
  }
  ~NatsLink() override {
    const std::lock_guard lock(links().mutex);
    links().all.erase(this);
  }

  int32_t send(std::span<const DrixSendDescriptor> messages, bool &left) override {
    const size_t limit = std::min(KELVODRIX_MAX_FRAME_BYTES, options_.window_bytes);
    size_t frame_bytes;
    if (const int32_t status = measure_frame(messages, limit, frame_bytes); status != KELVODRIX_OK) return status;
    const Deadline deadline = Clock::now() + milliseconds(options_.send_timeout_ms);
    std::unique_lock lock(state_->mutex);
    for (bool again = true;; again = wait(lock, deadline)) {
      if (closed_) return KELVODRIX_ERR_HANDLE;
      const int32_t status = append(messages, frame_bytes);
      left = size_ != 0;
      const bool may_change = status == KELVODRIX_ERR_WINDOW || status == KELVODRIX_ERR_NO_RECEIVER ||
                              status == KELVODRIX_ERR_SERVER || status == KELVODRIX_ERR_HOST || session_ != nullptr;
      if (status == KELVODRIX_OK || status == KELVODRIX_ERR_TOO_BIG || !may_change || !again) return status;
    }
  }

  void settle(Deadline until, bool close, Undelivered &total) override {
    std::unique_lock lock(state_->mutex);
    while (!closed_ && !state_->window.empty() && wait(lock, until)) {
    }
    closed_ |= close;
    if (close) state_->changed.notify_all();
    total.messages += state_->window.undelivered();
    total.pending |= !state_->window.empty();
  }

  // As long as there is something, there may soon be more.
  bool write_left() override {
    const std::lock_guard lock(state_->mutex);
    const bool some = size_ != 0;
    publish();
    return some;
  }
  void finish(Deadline) override {}  // finish_links does that before the connections end

 private:
  // All of these are called with the mutex locked.

  // Adds a frame to those that will be published together.
  int32_t append(std::span<const DrixSendDescriptor> messages, size_t frame_bytes) {
    State &state = *state_;
    if (state.window.empty() && options_.send_timeout_ms != 0 && Clock::now() - state.heard > kSurelyThere)
      state.present = false;
    if (session_ == nullptr) return reached_;
    if (!state.present) {
      const int32_t status = session_->status();
      return status != KELVODRIX_OK ? status : KELVODRIX_ERR_NO_RECEIVER;
    }
    if (!state.window.fits(frame_bytes)) return KELVODRIX_ERR_WINDOW;
    const auto most = static_cast<size_t>(natsConnection_GetMaxPayload(session_->nc()));
    if (kInstanceBytes + frame_bytes > most) return KELVODRIX_ERR_TOO_BIG;

    const size_t limit = std::min<size_t>(kBytesToJoin, options_.window_bytes / kPartToJoin);
    std::string id = id_subject(messages);
    if (id != id_ || instance_ != state.instance || size_ + frame_bytes > std::min(limit, most)) publish();
    id_ = std::move(id);
    instance_ = state.instance;
    const size_t start = size_ != 0 ? size_ : kInstanceBytes;
    if (joined_.size() < start + frame_bytes) joined_.resize(start + frame_bytes);
    state.window.add(static_cast<uint32_t>(messages.size()), frame_bytes);
    store(joined_.data(), instance_);
    write_frame(messages, frame_bytes, state.window.last(), &joined_[start]);
    size_ = start + frame_bytes;
    const bool is_part = state.window.last() % (options_.window_frames / kPartToJoin + 1) == 0;
    if (state.window.frames() > kFramesToJoin && size_ < limit && !is_part) return KELVODRIX_OK;
    if (publish()) return KELVODRIX_OK;
    state.window.withdraw_last();
    return session_->status() != KELVODRIX_OK ? session_->status() : KELVODRIX_ERR_SERVER;
  }

  // If it fails, the frames are missing at the receiver, which will say so.
  bool publish() {
    if (size_ == 0) return true;
    const std::string subject = place_.subject + "m." + id_;
    const natsStatus status = natsConnection_PublishRequest(session_->nc(), subject.c_str(), inbox_.c_str(),
                                                            joined_.data(), static_cast<int>(std::exchange(size_, 0)));
    if (joined_.capacity() > kMostKept) std::vector<uint8_t>().swap(joined_);
    if (status != NATS_OK) state_->present = false;
    return status == NATS_OK;
  }

  // For what the other end has to say, which it is asked from time to time. False at the deadline.
  bool wait(std::unique_lock<std::mutex> &lock, Deadline deadline) {
    State &state = *state_;
    publish();
    if (session_ == nullptr || session_->closed()) reach(lock, deadline);
    if (session_ != nullptr && Clock::now() - asked_ >= kAskAgain) ask();
    if (Clock::now() >= deadline) return false;
    state.changed.wait_until(lock, std::min(deadline, Clock::now() + kAskAgain));
    return true;
  }

  void reach(std::unique_lock<std::mutex> &lock, Deadline deadline) {
    std::shared_ptr<Session> session;
    answers_.reset();
    session_.reset();
    const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
    lock.unlock();
    reached_ =
        forked() ? KELVODRIX_ERR_FORKED
                 : Session::get(place_.servers, Use::joining, std::clamp(left, 10ms, kLongestConnect).count(), session);
    lock.lock();
    if (session == nullptr || session_ != nullptr) return;
    session->forget_denials();  // of other endpoints
    session_ = session;
    inbox_ = session->inbox();
    answers_.emplace(session, inbox_,
                     [state = state_](natsConnection *, const Message &message) { state->take(message.get()); });
  }

  void ask() {
    asked_ = Clock::now();
    uint8_t bytes[kHelloBytes];
    store(store(bytes, state_->instance), state_->window.empty() ? uint64_t{0} : state_->window.last());
    natsConnection_PublishRequest(session_->nc(), (place_.subject + "hello").c_str(), inbox_.c_str(), bytes,
                                  sizeof(bytes));
  }

  static constexpr size_t kMostKept = 1 << 20;

  const Place place_;
  const kelvodrix_options options_;
  const std::shared_ptr<State> state_;
  // Guarded by the state's mutex.
  bool closed_ = false;
  int32_t reached_ = KELVODRIX_ERR_SERVER;  // what the last attempt to connect has come to
  std::shared_ptr<Session> session_;
  std::string inbox_;
  std::vector<uint8_t> joined_;  // frames that will be published together, behind the instance that they are for
  size_t size_ = 0;              // 0: there are none
  std::string id_;               // of their messages, in the subject
  uint64_t instance_ = 0;
  Deadline asked_{};
  std::optional<Subscription> answers_;
};

}  // namespace

void finish_links() {
  const std::lock_guard lock(links().mutex);
  for (NatsLink *const each : links().all) each->write_left();
}

std::shared_ptr<Link> make_direct_link(const Place &place, const kelvodrix_options &options) {
  return std::make_shared<NatsLink>(place, options);
}

}  // namespace kelvodrix
