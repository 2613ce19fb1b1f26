// Channels: their handles, their destinations, and who may use them when.
#include <algorithm>
#include <memory>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "frame.h"
#include "link.h"
#include "registry.h"
#include "status.h"

namespace kelvodrix {

namespace {

using std::chrono::milliseconds;

constexpr kelvodrix_options kDefaultOptions = KELVODRIX_OPTIONS_DEFAULT;
constexpr uint32_t kMaxWindowFrames = 65536;
constexpr uint32_t kDefaultDestination = 0;
constexpr milliseconds kFlushInterval(1);

class Channel {
 public:
  explicit Channel(const kelvodrix_options &options) : options_(options) {}

  int32_t add_destination(uint32_t destination, const char *text) {
    Endpoint endpoint;
    int32_t status = parse_endpoint(text, endpoint);
    if (status != KELVODRIX_OK) return status;
    auto link = std::make_shared<Link>(endpoint, options_);
    status = link->connect();
    if (status != KELVODRIX_OK) return status;
    std::lock_guard lock(mutex_);
    if (closed_) return KELVODRIX_ERR_HANDLE;
    destinations_.push_back({destination, std::move(link)});
    return KELVODRIX_OK;
  }

  int32_t send(std::span<const DrixSendDescriptor> messages, uint32_t destination) {
    const uint64_t limit = std::min(KELVODRIX_MAX_FRAME_BYTES, options_.window_bytes);
    uint64_t frame_bytes = kDataOverhead;
    for (const DrixSendDescriptor &message : messages) {
      if (message.address == 0 && message.length != 0) return KELVODRIX_ERR_INVALID;
      frame_bytes += kMessageOverhead + message.length;
      if (frame_bytes > limit) return KELVODRIX_ERR_TOO_BIG;
    }

    const Deadline deadline = Clock::now() + milliseconds(options_.send_timeout_ms);
    std::shared_ptr<Link> link;
    {
      std::lock_guard lock(mutex_);
      if (closed_) return KELVODRIX_ERR_HANDLE;
      auto found = std::find_if(destinations_.begin(), destinations_.end(),
                                [&](const Destination &each) { return each.id == destination; });
      if (found == destinations_.end()) return KELVODRIX_ERR_DESTINATION;
      link = found->link;
    }
    return link->send(messages, static_cast<size_t>(frame_bytes), deadline);
  }

  // Does not hold the channel while it waits, so that other threads can send meanwhile.
  int32_t flush(uint32_t timeout_ms, uint64_t *undelivered, bool close) {
    const Deadline deadline = Clock::now() + milliseconds(timeout_ms);
    for (;; std::this_thread::sleep_for(kFlushInterval)) {
      std::lock_guard lock(mutex_);
      if (closed_) return KELVODRIX_ERR_HANDLE;
      Undelivered messages = sum(&Link::update);
      if (messages.pending != 0 && Clock::now() < deadline) continue;
      if (close) {
        closed_ = true;
        messages = sum(&Link::close);  // with what other threads have sent this moment
        destinations_.clear();
      }
      if (undelivered != nullptr) *undelivered = messages.pending + messages.lost;
      return messages.pending != 0 ? KELVODRIX_ERR_PENDING : messages.lost != 0 ? KELVODRIX_ERR_LOST : KELVODRIX_OK;
    }
  }

 private:
  struct Destination {
    uint32_t id;
    std::shared_ptr<Link> link;  // shared with the threads that are sending
  };

  Undelivered sum(Undelivered (Link::*of)()) {
    Undelivered total;
    for (const Destination &each : destinations_) {
      const Undelivered messages = (*each.link.*of)();
      total.pending += messages.pending;
      total.lost += messages.lost;
    }
    return total;
  }

  const kelvodrix_options options_;
  std::mutex mutex_;  // guards what follows; never held while anything waits
  bool closed_ = false;
  std::vector<Destination> destinations_;
};

class ChannelTable {
 public:
  // Handles and destinations share one sequence of numbers, so that neither passes for the other.
  uint32_t next_number() {
    std::lock_guard lock(mutex_);
    while (++number_ == 0 || channels_.contains(number_)) {
    }
    return number_;
  }

  void add(uint32_t handle, std::shared_ptr<Channel> channel) {
    std::lock_guard lock(mutex_);
    channels_.emplace(handle, std::move(channel));
  }

  std::shared_ptr<Channel> find(uint32_t handle) {
    std::lock_guard lock(mutex_);
    auto found = channels_.find(handle);
    return found == channels_.end() ? nullptr : found->second;
  }

  // Returns whether it was the last channel.
  bool remove(uint32_t handle) {
    std::lock_guard lock(mutex_);
    return channels_.erase(handle) != 0 && channels_.empty();
  }

 private:
  std::mutex mutex_;
  std::unordered_map<uint32_t, std::shared_ptr<Channel>> channels_;
  uint32_t number_ = 0;
};

// Never destroyed: a channel that is still open at exit must not wait for its connections.
ChannelTable &channels() {
  static ChannelTable &instance = *new ChannelTable;
  return instance;
}

int32_t send(uint32_t handle, const DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  return guarded([&]() -> int32_t {
    std::shared_ptr<Channel> channel = channels().find(handle);
    if (!channel) return KELVODRIX_ERR_HANDLE;
    if (count == 0) return KELVODRIX_OK;
    if (descriptors == nullptr) return KELVODRIX_ERR_INVALID;
    return channel->send({descriptors, count}, destination);
  });
}

}  // namespace

}  // namespace kelvodrix

using namespace kelvodrix;

int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count) {
  return send(handle, descriptors, count, kDefaultDestination);
}

int32_t DRIX_SendToMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  return send(handle, descriptors, count, destination);
}

int32_t kelvodrix_open(const char *endpoint, const kelvodrix_options *options, uint32_t *handle) {
  return guarded([&]() -> int32_t {
    const kelvodrix_options &chosen = options != nullptr ? *options : kDefaultOptions;
    if (endpoint == nullptr || handle == nullptr || chosen.window_frames == 0 ||
        chosen.window_frames > kMaxWindowFrames || chosen.window_bytes == 0)
      return KELVODRIX_ERR_INVALID;
    auto channel = std::make_shared<Channel>(chosen);
    int32_t status = channel->add_destination(kDefaultDestination, endpoint);
    if (status != KELVODRIX_OK) return status;
    uint32_t number = channels().next_number();
    channels().add(number, std::move(channel));
    *handle = number;
    return KELVODRIX_OK;
  });
}

int32_t kelvodrix_destination(uint32_t handle, const char *endpoint, uint32_t *destination) {
  return guarded([&]() -> int32_t {
    if (endpoint == nullptr || destination == nullptr) return KELVODRIX_ERR_INVALID;
    std::shared_ptr<Channel> channel = channels().find(handle);
    if (!channel) return KELVODRIX_ERR_HANDLE;
    uint32_t number = channels().next_number();
    int32_t status = channel->add_destination(number, endpoint);
    if (status == KELVODRIX_OK) *destination = number;
    return status;
  });
}

int32_t kelvodrix_flush(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered) {
  return guarded([&]() -> int32_t {
    std::shared_ptr<Channel> channel = channels().find(handle);
    return channel ? channel->flush(timeout_ms, undelivered, false) : KELVODRIX_ERR_HANDLE;
  });
}

int32_t kelvodrix_close(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered) {
  return guarded([&]() -> int32_t {
    std::shared_ptr<Channel> channel = channels().find(handle);
    if (!channel) return KELVODRIX_ERR_HANDLE;
    int32_t status = channel->flush(timeout_ms, undelivered, true);
    if (status != KELVODRIX_ERR_HANDLE && channels().remove(handle)) run_clean_hooks();
    return status;
  });
}
