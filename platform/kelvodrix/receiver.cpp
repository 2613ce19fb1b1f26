// Receivers, and the decoders that their process has registered.
#include <sys/eventfd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "endpoint.h"
#include "frame.h"
#include "process.h"
#include "status.h"
#include "transport.h"

namespace kelvodrix {

namespace {

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

}  // namespace

}  // namespace kelvodrix

using namespace kelvodrix;

struct kelvodrix_receiver final : private Loop {
 public:
  int32_t open(const char *endpoint) {
    event_ = Fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    wake_up_ = event_.get();
    return event_ ? make_inbox(endpoint, inbox_) : KELVODRIX_ERR_SYSTEM;
  }

  int32_t run(int cancel_state) {
    if (running_.exchange(true)) return KELVODRIX_ERR_BUSY;
    struct Running {
      std::atomic<bool> &flag;
      ~Running() { flag = false; }
    } running{running_};
    cancel_state_ = cancel_state;
    const int32_t status = inbox_->run(*this);
    if (status == KELVODRIX_OK) stopped_ = false;
    return status;
  }

  void stop() {
    const int saved = errno;
    const uint64_t one = 1;
    stopped_ = true;
    [[maybe_unused]] const ssize_t written = write(wake_up_, &one, sizeof(one));
    errno = saved;
  }

  bool running() const { return running_; }

  void subscribe(uint32_t id, Subscription subscription) { change(subscriptions_, id, subscription); }

  kelvodrix_counters counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
  }

 private:
  void deliver(std::span<const uint8_t> frame) override try {
    visit_messages(frame, [&](uint32_t id, const uint8_t *bytes, uint32_t length) {
      ++tally_.messages;
      ++deliver(id, bytes, length);
    });
    ++tally_.frames;
    publish();  // before the sender can learn of it
  } catch (...) {
    ++tally_.failed;
    publish();
    throw;
  }

  void count_malformed() override {
    ++tally_.malformed;
    publish();
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

  void publish() {
    std::lock_guard lock(mutex_);
    counters_ = tally_;
  }

  Fd event_;
  std::unique_ptr<Inbox> inbox_;
  std::atomic<bool> running_ = false;

  mutable std::mutex mutex_;  // guards the next
  kelvodrix_counters counters_{};
  Table<Subscription> subscriptions_;  // guarded by the process's lock

  // The loop's own.
  Handling handling_;  // of the last message
  kelvodrix_counters tally_{};
  uint32_t record_bytes_ = KELVODRIX_MAX_RECORD_BYTES;  // of the last record
  alignas(std::max_align_t) std::array<uint8_t, KELVODRIX_MAX_RECORD_BYTES> record_;
};

static_assert(std::atomic<bool>::is_always_lock_free, "kelvodrix_stop must be safe in a signal handler");

int32_t kelvodrix_receiver_create(const char *endpoint, kelvodrix_receiver **receiver) {
  return guarded([&]() -> int32_t {
    if (receiver == nullptr) return KELVODRIX_ERR_INVALID;
    auto created = std::make_unique<kelvodrix_receiver>();
    const int32_t status = created->open(endpoint);
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
