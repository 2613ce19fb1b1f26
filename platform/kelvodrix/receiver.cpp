#include <poll.h>
#include <sys/eventfd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <vector>

#include "endpoint.h"
#include "frame.h"
#include "registry.h"
#include "status.h"

namespace kelvodrix {

namespace {

constexpr size_t kChunkBytes = 64 << 10;
constexpr uint64_t kMaxUnacknowledged = 64;  // frames
// How long a receiver without file descriptors to spare leaves new connections to the kernel.
constexpr int kAcceptAgainMs = 100;

struct Subscription {
  kelvodrix_subscriber subscriber = nullptr;  // null: nobody subscribed
  void *context = nullptr;
};

struct Route {
  uint32_t id;
  Registration registration;
  Subscription subscription;
};

struct Connection {
  Fd fd;
  std::vector<uint8_t> rest;  // what has arrived and is not handled: less than a frame unless the loop was stopped
  uint64_t handled = 0;       // frames
  uint64_t acknowledged = 0;
  std::array<uint8_t, kAcknowledgementBytes> out{};
  size_t unwritten = 0;  // of these
};

}  // namespace

}  // namespace kelvodrix

using namespace kelvodrix;

struct kelvodrix_receiver {
 public:
  int32_t open(const Endpoint &endpoint) {
    wake_up_ = Fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    return wake_up_ ? listener_.open(endpoint) : KELVODRIX_ERR_SYSTEM;
  }

  void subscribe(uint32_t id, Subscription subscription) {
    std::lock_guard lock(mutex_);
    subscriptions_[id] = subscription;
  }

  // The cancellation state is for when it waits and for subscribers.
  int32_t run(int cancel_state) {
    if (running_.exchange(true)) return KELVODRIX_ERR_BUSY;
    struct Running {
      std::atomic<bool> &flag;
      ~Running() { flag = false; }
    } running{running_};
    cancel_state_ = cancel_state;

    for (Connection &each : connections_)
      if (each.fd) handle_rest(each);  // what a stop has left
    std::vector<pollfd> items;
    for (bool full = false; !stopped_;) {
      std::erase_if(connections_, [](const Connection &each) { return !each.fd; });
      items = {{wake_up_.get(), POLLIN, 0}, {full ? -1 : listener_.fd(), POLLIN, 0}};
      for (const Connection &each : connections_)
        items.push_back({each.fd.get(), static_cast<short>(owes(each) ? POLLIN | POLLOUT : POLLIN), 0});
      {
        const CancelState waiting(cancel_state_);
        if (poll(items.data(), items.size(), full ? kAcceptAgainMs : -1) < 0 && errno != EINTR)
          return KELVODRIX_ERR_SYSTEM;
      }
      size_t at = 2;
      for (Connection &each : connections_) {
        const short events = items[at++].revents;
        if (events & POLLOUT) acknowledge(each);
        if (events & ~POLLOUT && !stopped_) receive(each);
      }
      full = items[1].revents != 0 && !accept();
    }
    uint64_t count;
    [[maybe_unused]] const ssize_t got = read(wake_up_.get(), &count, sizeof(count));
    stopped_ = false;
    return KELVODRIX_OK;
  }

  void stop() {
    const int saved = errno;
    const uint64_t one = 1;
    stopped_ = true;
    [[maybe_unused]] const ssize_t written = write(wake_up_.get(), &one, sizeof(one));
    errno = saved;
  }

  bool running() const { return running_; }

  kelvodrix_counters counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
  }

 private:
  // False when the process can take no more.
  bool accept() {
    while (Fd fd = listener_.accept()) connections_.emplace_back().fd = std::move(fd);
    return errno == EAGAIN;
  }

  void receive(Connection &from) {
    const ssize_t count = recv(from.fd.get(), chunk_.data(), chunk_.size(), MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return from.fd.reset();  // an unfinished frame goes with its connection
    const std::span<const uint8_t> chunk(chunk_.data(), static_cast<size_t>(count));
    try {
      if (from.rest.empty()) {
        const std::span<const uint8_t> rest = handle(from, chunk);
        from.rest.assign(rest.begin(), rest.end());
      } else {
        from.rest.insert(from.rest.end(), chunk.begin(), chunk.end());
        handle_rest(from);
      }
    } catch (const std::bad_alloc &) {
      from.fd.reset();  // what it has not acknowledged stays counted at the sender
    }
  }

  void handle_rest(Connection &from) {
    const std::span<const uint8_t> rest = handle(from, from.rest);
    if (rest.empty())
      from.rest = {};  // may have been large
    else
      from.rest.erase(from.rest.begin(), from.rest.end() - static_cast<ptrdiff_t>(rest.size()));
  }

  // Handles the whole frames that there are, and returns what is left.
  std::span<const uint8_t> handle(Connection &from, std::span<const uint8_t> bytes) {
    while (!stopped_ && bytes.size() >= sizeof(uint32_t)) {
      const auto length = load<uint32_t>(bytes.data());
      const bool possible = length >= kHeaderBytes && length <= KELVODRIX_MAX_FRAME_BYTES;
      if (possible && length > bytes.size()) break;
      if (!possible || !well_formed(bytes.first(length), from.handled + 1)) {
        ++tally_.malformed;
        publish();
        acknowledge(from);
        from.fd.reset();
        return {};
      }
      deliver(from, bytes.first(length));
      bytes = bytes.subspan(length);
      if (++from.handled - from.acknowledged == kMaxUnacknowledged) acknowledge(from);
    }
    acknowledge(from);
    return bytes;
  }

  static bool well_formed(std::span<const uint8_t> frame, uint64_t number) {
    return load<uint32_t>(&frame[4]) == kMagic && load<uint64_t>(&frame[8]) == number &&
           load<uint32_t>(&frame[16]) <= KELVODRIX_MAX_FRAME_MESSAGES &&
           visit_messages(frame, [](uint32_t, const uint8_t *, uint32_t) {});
  }

  void deliver(Connection &from, std::span<const uint8_t> frame) {
    // When a subscriber ends the thread, its frame is neither handled again nor acknowledged, so the connection has to
    // end as well.
    struct Frame {
      kelvodrix_receiver &receiver;
      Connection &from;
      bool complete = false;
      ~Frame() {
        ++(complete ? receiver.tally_.frames : receiver.tally_.failed);
        receiver.publish();  // before the sender can learn of it
        if (complete) return;
        acknowledge(from);
        from.fd.reset();
      }
    } current{*this, from};
    std::optional<Route> route;
    visit_messages(frame, [&](uint32_t id, const uint8_t *bytes, uint32_t length) {
      if (!route || route->id != id) route = find_route(id);
      ++tally_.messages;
      ++deliver(*route, bytes, length);
    });
    current.complete = true;
  }

  // Returns the counter for what became of the message.
  uint64_t &deliver(const Route &route, const uint8_t *bytes, uint32_t length) {
    const auto &[decode, release, record_bytes] = route.registration;
    if (decode == nullptr) return tally_.unknown_id;
    if (route.subscription.subscriber == nullptr) return tally_.no_subscriber;
    // The decoder leaves the record alone when it rejects the message, and it has to be fit for the release function
    // then as well.
    std::memset(record_.data(), 0, record_bytes);
    decode(bytes, length, record_.data());
    struct Release {
      DrixReleaseFunc release;
      void *record;
      ~Release() { release(record); }
    } const at_end{release, record_.data()};
    const bool threw = throws([&] {
      const CancelState subscriber(cancel_state_);
      route.subscription.subscriber(route.subscription.context, route.id, record_.data(), record_bytes);
    });
    return threw ? tally_.failed : tally_.delivered;
  }

  Route find_route(uint32_t id) {
    Route route{id, find_registration(id), {}};
    std::lock_guard lock(mutex_);
    const auto found = subscriptions_.find(id);
    if (found != subscriptions_.end()) route.subscription = found->second;
    return route;
  }

  static bool owes(const Connection &to) { return to.unwritten != 0 || to.acknowledged != to.handled; }

  // What a slow sender leaves no room for is written later; one that is gone shows when it is read from.
  static void acknowledge(Connection &to) {
    while (owes(to)) {
      if (to.unwritten == 0) {
        store(to.out.data(), to.handled);
        to.acknowledged = to.handled;
        to.unwritten = to.out.size();
      }
      const ssize_t count = send(to.fd.get(), to.out.end() - to.unwritten, to.unwritten, MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count < 0 && errno == EAGAIN) return;
      if (count < 0 && errno != EINTR) to.unwritten = 0;
      if (count > 0) to.unwritten -= static_cast<size_t>(count);
    }
  }

  void publish() {
    std::lock_guard lock(mutex_);
    counters_ = tally_;
  }

  Fd wake_up_;
  Listener listener_;
  std::atomic<bool> stopped_ = false;
  std::atomic<bool> running_ = false;

  mutable std::mutex mutex_;  // guards the next two
  std::unordered_map<uint32_t, Subscription> subscriptions_;
  kelvodrix_counters counters_{};

  // The loop's own.
  int cancel_state_ = PTHREAD_CANCEL_ENABLE;
  std::list<Connection> connections_;
  kelvodrix_counters tally_{};
  alignas(std::max_align_t) std::array<uint8_t, KELVODRIX_MAX_RECORD_BYTES> record_;
  std::array<uint8_t, kChunkBytes> chunk_;
};

static_assert(std::atomic<bool>::is_always_lock_free, "kelvodrix_stop must be safe in a signal handler");

int32_t kelvodrix_receiver_create(const char *endpoint, kelvodrix_receiver **receiver) {
  return guarded([&]() -> int32_t {
    if (endpoint == nullptr || receiver == nullptr) return KELVODRIX_ERR_INVALID;
    Endpoint parsed;
    int32_t status = parse_endpoint(endpoint, parsed);
    if (status != KELVODRIX_OK) return status;
    auto created = std::make_unique<kelvodrix_receiver>();
    status = created->open(parsed);
    if (status == KELVODRIX_OK) *receiver = created.release();
    return status;
  });
}

int32_t kelvodrix_subscribe(kelvodrix_receiver *receiver, uint32_t id, kelvodrix_subscriber subscriber, void *context) {
  return guarded([&]() -> int32_t {
    if (receiver == nullptr) return KELVODRIX_ERR_INVALID;
    receiver->subscribe(id, {subscriber, context});
    return KELVODRIX_OK;
  });
}

int32_t kelvodrix_run(kelvodrix_receiver *receiver) {
  const CancelState callers(PTHREAD_CANCEL_DISABLE);
  return guarded([&] { return receiver != nullptr ? receiver->run(callers.former()) : KELVODRIX_ERR_INVALID; });
}

void kelvodrix_stop(kelvodrix_receiver *receiver) {
  if (receiver != nullptr) receiver->stop();
}

void kelvodrix_get_counters(const kelvodrix_receiver *receiver, kelvodrix_counters *counters) {
  if (receiver != nullptr && counters != nullptr) *counters = receiver->counters();
}

int32_t kelvodrix_receiver_destroy(kelvodrix_receiver *receiver) {
  return guarded([&]() -> int32_t {
    if (receiver != nullptr && receiver->running()) return KELVODRIX_ERR_BUSY;
    delete receiver;
    return KELVODRIX_OK;
  });
}
