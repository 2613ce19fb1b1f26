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
#include "process.h"
#include "status.h"

namespace kelvodrix {

namespace {

constexpr size_t kChunkBytes = 64 << 10;
constexpr size_t kMostKept = 256 << 10;      // bytes of memory for a connection that waits for its next frame
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

template <typename Value>
using Table = std::unordered_map<uint32_t, Value>;  // by message ID

template <typename Value>
Value look_up(const Table<Value> &table, uint32_t id) {
  const auto found = table.find(id);
  return found != table.end() ? found->second : Value{};
}

// Never destroyed: threads may still be receiving while the process exits.
Table<Decoder> &decoders() {
  static auto &instance = *new Table<Decoder>;
  return instance;
}

// Counts the changes of all tables, so that a loop looks into them no more often than it has to.
std::atomic<uint32_t> changes = 1;

template <typename Value>
void change(Table<Value> &table, uint32_t id, Value value) {
  std::lock_guard lock(process_mutex);
  table[id] = value;
  ++changes;
}

// What the loop does with the messages that have an ID, as of so many changes.
struct Handling : Decoder, Subscription {
  uint32_t id = 0, changes = 0;
};

struct Connection {
  Fd fd;
  std::vector<uint8_t> rest;  // what has arrived and is not handled: less than a frame unless the loop was stopped
  uint64_t handled = 0;       // frames
  uint64_t acknowledged = 0;  // frames
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

    for (Connection &each : connections_) handle(each, each.rest);  // what a stop has left
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
      uint64_t count;  // a stop may write after the loop that it has ended
      [[maybe_unused]] const ssize_t got = items[0].revents != 0 ? read(wake_up_.get(), &count, sizeof(count)) : 0;
      size_t at = 2;
      for (Connection &each : connections_) {
        const short events = items[at++].revents;
        if (events & POLLOUT) acknowledge(each);
        if (events & ~POLLOUT && !stopped_) receive(each);
      }
      full = items[1].revents != 0 && !accept();
    }
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

  void subscribe(uint32_t id, Subscription subscription) { change(subscriptions_, id, subscription); }

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
    std::vector<uint8_t> &rest = from.rest;
    // A large frame is taken in alone, into as much memory as it needs.
    const size_t whole = rest.size() >= sizeof(uint32_t) ? load<uint32_t>(rest.data()) : 0;
    const size_t most = whole > kMostKept ? std::min(whole - rest.size(), chunk_.size()) : chunk_.size();
    const ssize_t count = recv(from.fd.get(), chunk_.data(), most, MSG_DONTWAIT);
    if (count < 0 && (errno == EAGAIN || errno == EINTR)) return;
    if (count <= 0) return from.fd.reset();  // an unfinished frame goes with its connection
    const int32_t status = guarded([&]() -> int32_t {
      const std::span<const uint8_t> arrived(chunk_.data(), static_cast<size_t>(count));
      if (rest.empty()) {
        handle(from, arrived);
      } else {
        rest.reserve(std::max(whole, rest.size() + arrived.size()));
        rest.insert(rest.end(), arrived.begin(), arrived.end());
        handle(from, rest);
      }
      return KELVODRIX_OK;
    });
    if (status != KELVODRIX_OK) from.fd.reset();  // what it has not acknowledged stays counted at the sender
  }

  // Handles the whole frames among the bytes and keeps what is left.
  void handle(Connection &from, std::span<const uint8_t> bytes) {
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
    std::vector<uint8_t> &rest = from.rest;
    if (bytes.size() == rest.size()) return;
    if (rest.empty())
      rest.assign(bytes.begin(), bytes.end());
    else
      rest.erase(rest.begin(), rest.end() - static_cast<ptrdiff_t>(bytes.size()));
    if (rest.capacity() > kMostKept) rest.shrink_to_fit();
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
    const Handling &handling = look_up(id);
    if (handling.decode == nullptr) return tally_.unknown_id;
    if (handling.subscriber == nullptr) return tally_.no_subscriber;
    // The decoder leaves the record alone when it rejects the message, and it has to be fit for the release function
    // then as well.
    std::memset(record_.data(), 0, record_bytes_);
    record_bytes_ = std::min(handling.decode(bytes, length, record_.data()), KELVODRIX_MAX_RECORD_BYTES);
    const std::unique_ptr<void, DrixReleaseFunc> record(record_.data(), handling.release);
    const auto call = [&]() -> int32_t {
      handling.subscriber(handling.context, id, record.get(), record_bytes_);
      return KELVODRIX_OK;
    };
    return guarded(call, cancel_state_) == KELVODRIX_OK ? tally_.delivered : tally_.failed;
  }

  const Handling &look_up(uint32_t id) {
    const uint32_t now = changes;
    if (id != handling_.id || now != handling_.changes) {
      std::lock_guard lock(process_mutex);
      handling_ = {kelvodrix::look_up(decoders(), id), kelvodrix::look_up(subscriptions_, id), id, now};
    }
    return handling_;
  }

  // Ends the connection for a reason that has a counter.
  void end(Connection &from, uint64_t &reason) {
    ++reason;
    publish();
    acknowledge(from);
    from.fd.reset();
  }

  static bool owes(const Connection &to) { return to.acknowledged != to.handled; }

  // What a slow sender leaves no room for is written later; one that is gone shows when it is read from.
  static void acknowledge(Connection &to) {
    uint8_t bytes[kAcknowledgementBytes];
    store(bytes, to.handled);
    while (owes(to)) {
      const ssize_t count = send(to.fd.get(), bytes, sizeof(bytes), MSG_DONTWAIT | MSG_NOSIGNAL);
      if (count < 0 && errno == EAGAIN) return;
      if (count >= 0 || errno != EINTR) to.acknowledged = to.handled;
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
  Table<Subscription> subscriptions_;  // guarded by the process's lock

  // The loop's own.
  int cancel_state_ = PTHREAD_CANCEL_ENABLE;
  std::list<Connection> connections_;
  Handling handling_;  // of the last message
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

int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc release) {
  return guarded([&]() -> int32_t {
    if (decode == nullptr || release == nullptr) return KELVODRIX_ERR_INVALID;
    change(decoders(), id, {decode, release});
    return KELVODRIX_OK;
  });
}
