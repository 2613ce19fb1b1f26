// Receivers, and the decoders that their process has registered.
#include <poll.h>
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "endpoint.h"
#include "frame.h"
#include "status.h"

namespace kelvodrix {

namespace {

constexpr size_t kChunkBytes = 64 << 10;
constexpr uint64_t kMaxUnacknowledged = 64;  // frames
// How long a receiver without file descriptors to spare leaves new connections to the kernel.
constexpr int kAcceptAgainMs = 100;

struct Decoder {
  DrixDecodeFunc decode = nullptr;  // null: nothing registered
  DrixReleaseFunc release = nullptr;
};

struct Subscription {
  kelvodrix_subscriber subscriber = nullptr;  // null: nobody subscribed
  void *context = nullptr;
};

// By message ID. Thread safe.
template <typename Value>
class Table {
 public:
  void set(uint32_t id, Value value) {
    std::lock_guard lock(mutex_);
    values_[id] = value;
  }
  Value get(uint32_t id) const {
    std::lock_guard lock(mutex_);
    const auto found = values_.find(id);
    return found != values_.end() ? found->second : Value{};
  }

 private:
  mutable std::mutex mutex_;
  std::unordered_map<uint32_t, Value> values_;
};

// Never destroyed: threads may still be receiving while the process exits.
Table<Decoder> &decoders() {
  static auto &instance = *new Table<Decoder>;
  return instance;
}

struct Connection {
  Fd fd;
  std::vector<uint8_t> rest;  // what has arrived and is not handled: less than a frame unless the loop was stopped
  uint64_t handled = 0;       // frames
  uint64_t acknowledged = 0;  // the last number that was given to the connection
  size_t unwritten = 0;       // bytes of it
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

  // The cancellation state is for when it waits and for subscribers.
  int32_t run(int cancel_state) {
    if (running_.exchange(true)) return KELVODRIX_ERR_BUSY;
    struct Running {
      std::atomic<bool> &flag;
      ~Running() { flag = false; }
    } running{running_};
    cancel_state_ = cancel_state;

    for (Connection &each : connections_) handle(each);  // what a stop has left
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

  Table<Subscription> subscriptions;

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
    const int32_t status = guarded([&]() -> int32_t {
      from.rest.insert(from.rest.end(), chunk_.begin(), chunk_.begin() + count);
      return KELVODRIX_OK;
    });
    if (status != KELVODRIX_OK) return from.fd.reset();  // what it has not acknowledged stays counted at the sender
    handle(from);
  }

  // Handles the whole frames that there are.
  void handle(Connection &from) {
    std::span<const uint8_t> bytes = from.rest;
    while (!stopped_ && from.fd && bytes.size() >= sizeof(uint32_t)) {
      const auto length = load<uint32_t>(bytes.data());
      const bool possible = length >= kHeaderBytes && length <= KELVODRIX_MAX_FRAME_BYTES;
      if (possible && length > bytes.size()) break;
      if (!possible || !well_formed(bytes.first(length), from.handled + 1)) return end(from, tally_.malformed);
      deliver(from, bytes.first(length));
      bytes = bytes.subspan(length);
      if (++from.handled - from.acknowledged == kMaxUnacknowledged) acknowledge(from);
    }
    acknowledge(from);
    if (bytes.empty())
      from.rest = {};  // may have been large
    else
      from.rest.erase(from.rest.begin(), from.rest.end() - static_cast<ptrdiff_t>(bytes.size()));
  }

  static bool well_formed(std::span<const uint8_t> frame, uint64_t number) {
    return load<uint32_t>(&frame[4]) == kMagic && load<uint64_t>(&frame[8]) == number &&
           load<uint32_t>(&frame[16]) <= KELVODRIX_MAX_FRAME_MESSAGES &&
           visit_messages(frame, [](uint32_t, const uint8_t *, uint32_t) {});
  }

  void deliver(Connection &from, std::span<const uint8_t> frame) try {
    visit_messages(frame, [&](uint32_t id, const uint8_t *bytes, uint32_t length) {
      ++tally_.messages;
      ++deliver(id, bytes, length);
    });
    ++tally_.frames;
    publish();  // before the sender can learn of it
  } catch (...) {
    end(from, tally_.failed);  // by the end of the thread: the frame is neither handled again nor acknowledged
    throw;
  }

  // Returns the counter for what became of the message.
  uint64_t &deliver(uint32_t id, const uint8_t *bytes, uint32_t length) {
    const auto [decode, release] = decoders().get(id);
    if (decode == nullptr) return tally_.unknown_id;
    const auto [subscriber, context] = subscriptions.get(id);
    if (subscriber == nullptr) return tally_.no_subscriber;
    // The decoder leaves the record alone when it rejects the message, and it has to be fit for the release function
    // then as well.
    std::memset(record_.data(), 0, record_bytes_);
    record_bytes_ = std::min(decode(bytes, length, record_.data()), KELVODRIX_MAX_RECORD_BYTES);
    const std::unique_ptr<void, DrixReleaseFunc> record(record_.data(), release);
    const auto call = [&, subscriber = subscriber, context = context]() -> int32_t {
      subscriber(context, id, record.get(), record_bytes_);
      return KELVODRIX_OK;
    };
    return guarded(call, cancel_state_) == KELVODRIX_OK ? tally_.delivered : tally_.failed;
  }

  // Ends the connection for a reason that has a counter.
  void end(Connection &from, uint64_t &reason) {
    ++reason;
    publish();
    acknowledge(from);
    from.fd.reset();
  }

  static bool owes(const Connection &to) { return to.unwritten != 0 || to.acknowledged != to.handled; }

  // What a slow sender leaves no room for is written later; one that is gone shows when it is read from.
  static void acknowledge(Connection &to) {
    while (owes(to)) {
      if (to.unwritten == 0) {
        to.acknowledged = to.handled;
        to.unwritten = kAcknowledgementBytes;
      }
      uint8_t bytes[kAcknowledgementBytes];
      const uint8_t *const end = store(bytes, to.acknowledged);
      const ssize_t count = send(to.fd.get(), end - to.unwritten, to.unwritten, MSG_DONTWAIT | MSG_NOSIGNAL);
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
  std::atomic<bool> stopped_ = false, running_ = false;

  mutable std::mutex mutex_;  // guards the next
  kelvodrix_counters counters_{};

  // The loop's own.
  int cancel_state_ = PTHREAD_CANCEL_ENABLE;
  std::list<Connection> connections_;
  kelvodrix_counters tally_{};
  uint32_t record_bytes_ = KELVODRIX_MAX_RECORD_BYTES;  // of the last record
  alignas(std::max_align_t) std::array<uint8_t, KELVODRIX_MAX_RECORD_BYTES> record_;
  std::array<uint8_t, kChunkBytes> chunk_;
};

static_assert(std::atomic<bool>::is_always_lock_free, "kelvodrix_stop must be safe in a signal handler");

int32_t kelvodrix_receiver_create(const char *endpoint, kelvodrix_receiver **receiver) {
  return guarded([&]() -> int32_t {
    if (receiver == nullptr) return KELVODRIX_ERR_INVALID;
    Endpoint parsed;
    if (const int32_t status = parse_endpoint(endpoint, parsed); status != KELVODRIX_OK) return status;
    auto created = std::make_unique<kelvodrix_receiver>();
    const int32_t status = created->open(parsed);
    if (status == KELVODRIX_OK) *receiver = created.release();
    return status;
  });
}

int32_t kelvodrix_subscribe(kelvodrix_receiver *receiver, uint32_t id, kelvodrix_subscriber subscriber, void *context) {
  return guarded([&]() -> int32_t {
    if (receiver == nullptr) return KELVODRIX_ERR_INVALID;
    receiver->subscriptions.set(id, {subscriber, context});
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

int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc release) {
  return guarded([&]() -> int32_t {
    if (decode == nullptr || release == nullptr) return KELVODRIX_ERR_INVALID;
    decoders().set(id, {decode, release});
    return KELVODRIX_OK;
  });
}
