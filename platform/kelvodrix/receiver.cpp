#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <memory>
#include <mutex>
#include <optional>
#include <system_error>
#include <unordered_map>

#include "frame.h"
#include "registry.h"
#include "status.h"
#include "transport.h"

namespace kelvodrix {

namespace {

// How many links' numbers are remembered. The one heard of longest ago is forgotten first; its next frame starts a run.
constexpr size_t kMaxPeers = 4096;

// How long the last acknowledgements may take to leave a receiver that is being destroyed.
constexpr int kLingerMs = 250;

// Wakes a poll from any thread or signal handler.
class WakeUp {
 public:
  WakeUp() : fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category());
  }
  ~WakeUp() { close(fd_); }
  WakeUp(const WakeUp &) = delete;
  WakeUp &operator=(const WakeUp &) = delete;

  int fd() const { return fd_; }
  void set() {
    const uint64_t one = 1;
    [[maybe_unused]] ssize_t written = write(fd_, &one, sizeof(one));
  }
  void clear() {
    uint64_t count;
    [[maybe_unused]] ssize_t got = read(fd_, &count, sizeof(count));
  }

 private:
  int fd_;
};

struct Subscription {
  kelvodrix_subscriber subscriber = nullptr;  // null: nobody subscribed
  void *context = nullptr;
};

struct Route {
  uint32_t id;
  Registration registration;
  Subscription subscription;
};

// The numbers of one link: the latest unbroken run handled, and how far everything is settled.
struct Peer {
  uint64_t first = 1;
  uint64_t last = 0;
  uint64_t settled = 0;
  uint64_t heard = 0;  // when, in frames received
};

}  // namespace

}  // namespace kelvodrix

using namespace kelvodrix;

struct kelvodrix_receiver {
 public:
  explicit kelvodrix_receiver(const Endpoint &endpoint)
      : endpoint_(endpoint),
        // A context of its own, because terminating it makes sure that the endpoint is free again.
        socket_(endpoint.inproc ? shared_context() : make_context(), ZMQ_ROUTER) {
    socket_.set(ZMQ_RCVHWM, static_cast<int>(KELVODRIX_RECEIVE_QUEUE));
    socket_.set(ZMQ_MAXMSGSIZE, int64_t{KELVODRIX_MAX_FRAME_BYTES});
    socket_.set(ZMQ_LINGER, kLingerMs);
  }

  ~kelvodrix_receiver() { zmq_unbind(socket_.get(), endpoint_.text.c_str()); }

  int32_t bind() { return socket_.bind(endpoint_); }

  void subscribe(uint32_t id, Subscription subscription) {
    std::lock_guard lock(mutex_);
    subscriptions_[id] = subscription;
  }

  int32_t run() {
    if (running_.exchange(true)) return KELVODRIX_ERR_BUSY;
    struct Running {
      std::atomic<bool> &flag;
      ~Running() { flag = false; }
    } running{running_};

    zmq_pollitem_t items[] = {{socket_.get(), 0, ZMQ_POLLIN, 0}, {nullptr, wake_up_.fd(), ZMQ_POLLIN, 0}};
    while (!stopped_) {
      if (zmq_poll(items, 2, -1) < 0 && errno != EINTR) return KELVODRIX_ERR_SYSTEM;
      while (!stopped_ && receive()) {
      }
    }
    wake_up_.clear();
    stopped_ = false;
    return KELVODRIX_OK;
  }

  void stop() {
    int saved = errno;
    stopped_ = true;
    wake_up_.set();
    errno = saved;
  }

  bool running() const { return running_; }

  kelvodrix_counters counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
  }

 private:
  // Receives and handles one frame; false when there is none.
  bool receive() {
    Part sender, frame;
    if (!sender.receive(socket_)) return false;
    bool complete = sender.more() && frame.receive(socket_) && !frame.more();
    for (Part rest; frame.more() && rest.receive(socket_) && rest.more();) {
    }
    if (!complete || !handle(sender, Reader(frame.data(), frame.size()))) {
      ++tally_.malformed;
      publish();
    }
    return true;
  }

  // False for a malformed frame.
  bool handle(Part &sender, Reader reader) {
    Header header;
    if (!reader.get(header)) return false;
    if (header.kind == Kind::kProbe && reader.at_end()) {
      Peer &peer = find_peer(header.link);
      peer.settled = std::max(peer.settled, header.sequence);
      acknowledge(sender, header.link, peer);
      return true;
    }
    uint32_t count;
    if (header.kind != Kind::kData || header.sequence == 0 || !reader.get(count) || !holds_exactly(reader, count))
      return false;

    Peer &peer = find_peer(header.link);
    if (header.sequence <= peer.settled) {
      ++tally_.stale;
    } else {
      if (header.sequence - 1 != peer.last) {
        // The frames between were lost with a connection. Closes the former run before it is forgotten.
        peer.settled = header.sequence - 1;
        acknowledge(sender, header.link, peer);
        peer.first = header.sequence;
      }
      deliver(reader);
      peer.last = peer.settled = header.sequence;
    }
    publish();  // before the sender can learn of it
    acknowledge(sender, header.link, peer);
    return true;
  }

  void deliver(Reader messages) {
    std::optional<Route> route;
    for (Message message; messages.get(message);) {
      if (!route || route->id != message.id) route = find_route(message.id);
      ++tally_.messages;
      ++deliver(*route, message);
    }
    ++tally_.frames;
  }

  // Returns the counter for what became of the message.
  uint64_t &deliver(const Route &route, const Message &message) {
    const auto &[decode, release, record_bytes] = route.registration;
    if (decode == nullptr) return tally_.unknown_id;
    if (route.subscription.subscriber == nullptr) return tally_.no_subscriber;
    // The decoder leaves the record alone when it rejects the message, and it has to be fit for the release function
    // then as well.
    std::memset(record_.data(), 0, record_bytes);
    decode(message.bytes, message.length, record_.data());
    uint64_t *outcome = &tally_.delivered;
    try {
      route.subscription.subscriber(route.subscription.context, message.id, record_.data(), record_bytes);
    } catch (...) {
      outcome = &tally_.failed;
    }
    release(record_.data());
    return *outcome;
  }

  Route find_route(uint32_t id) {
    Route route{id, find_registration(id), {}};
    std::lock_guard lock(mutex_);
    auto found = subscriptions_.find(id);
    if (found != subscriptions_.end()) route.subscription = found->second;
    return route;
  }

  Peer &find_peer(uint64_t link) {
    if (peers_.size() == kMaxPeers && !peers_.contains(link))
      peers_.erase(std::min_element(peers_.begin(), peers_.end(), [](const auto &one, const auto &other) {
        return one.second.heard < other.second.heard;
      }));
    Peer &peer = peers_[link];
    peer.heard = ++heard_;
    return peer;
  }

  // A sender that cannot take the acknowledgement asks again, or is gone.
  void acknowledge(Part &sender, uint64_t link, const Peer &peer) {
    Part to(sender.size()), frame(kAcknowledgementBytes);
    std::memcpy(to.data(), sender.data(), sender.size());
    Writer writer(frame.data());
    writer.put_header(Kind::kAcknowledgement, link, peer.settled);
    writer.put(peer.first);
    writer.put(peer.last);
    if (to.send(socket_, ZMQ_SNDMORE)) static_cast<void>(frame.send(socket_));
  }

  void publish() {
    std::lock_guard lock(mutex_);
    counters_ = tally_;
  }

  const Endpoint endpoint_;
  WakeUp wake_up_;
  std::atomic<bool> stopped_ = false;
  std::atomic<bool> running_ = false;

  mutable std::mutex mutex_;  // guards the next two
  std::unordered_map<uint32_t, Subscription> subscriptions_;
  kelvodrix_counters counters_{};

  // The loop's own.
  Socket socket_;
  kelvodrix_counters tally_{};
  std::unordered_map<uint64_t, Peer> peers_;
  uint64_t heard_ = 0;
  alignas(std::max_align_t) std::array<uint8_t, KELVODRIX_MAX_RECORD_BYTES> record_;
};

static_assert(std::atomic<bool>::is_always_lock_free, "kelvodrix_stop must be safe in a signal handler");

int32_t kelvodrix_receiver_create(const char *endpoint, kelvodrix_receiver **receiver) {
  return guarded([&]() -> int32_t {
    if (endpoint == nullptr || receiver == nullptr) return KELVODRIX_ERR_INVALID;
    Endpoint parsed;
    int32_t status = parse_endpoint(endpoint, parsed);
    if (status != KELVODRIX_OK) return status;
    auto created = std::make_unique<kelvodrix_receiver>(parsed);
    status = created->bind();
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
  return guarded([&]() -> int32_t { return receiver != nullptr ? receiver->run() : KELVODRIX_ERR_INVALID; });
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
