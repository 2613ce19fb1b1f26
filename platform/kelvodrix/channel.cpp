// Channels: their handles and their destinations.
#include <algorithm>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "link.h"
#include "registry.h"
#include "status.h"

namespace kelvodrix {

namespace {

using std::chrono::milliseconds;

constexpr kelvodrix_options kDefaultOptions = KELVODRIX_OPTIONS_DEFAULT;
constexpr uint32_t kMaxWindowFrames = 65536;
constexpr uint32_t kDefaultDestination = 0;
// A flush that waits for one destination looks after the others as often.
constexpr milliseconds kFlushInterval(50);

using Links = std::unordered_map<uint32_t, std::shared_ptr<Link>>;  // shared with the threads that are sending

struct Channel {
  kelvodrix_options options;
  Links links;  // by destination
};

struct Channels {
  std::mutex mutex;  // guards all that follows; never held while anything waits
  std::unordered_map<uint32_t, Channel> open;
  // Handles and destinations share one sequence of numbers, so that neither passes for the other.
  uint32_t last_number = 0;
};

// Never destroyed: threads may still be sending while the process exits.
Channels &channels() {
  static Channels &instance = *new Channels;
  return instance;
}

uint32_t next_number() {
  Channels &all = channels();
  while (++all.last_number == 0 || all.open.contains(all.last_number)) {
  }
  return all.last_number;
}

int32_t send(uint32_t handle, const DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  return guarded([&]() -> int32_t {
    std::shared_ptr<Link> link;
    {
      std::lock_guard lock(channels().mutex);
      const auto channel = channels().open.find(handle);
      if (channel == channels().open.end()) return KELVODRIX_ERR_HANDLE;
      if (count == 0) return KELVODRIX_OK;
      if (descriptors == nullptr) return KELVODRIX_ERR_INVALID;
      const auto found = channel->second.links.find(destination);
      if (found == channel->second.links.end()) return KELVODRIX_ERR_DESTINATION;
      link = found->second;
    }
    return link->send({descriptors, count});
  });
}

int32_t status_of(const Undelivered &messages) {
  return messages.pending != 0 ? KELVODRIX_ERR_PENDING : messages.lost != 0 ? KELVODRIX_ERR_LOST : KELVODRIX_OK;
}

int32_t flush(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered, bool close) {
  const Deadline deadline = Clock::now() + milliseconds(timeout_ms);
  Links links;
  {
    std::lock_guard lock(channels().mutex);
    const auto channel = channels().open.find(handle);
    if (channel == channels().open.end()) return KELVODRIX_ERR_HANDLE;
    links = channel->second.links;
  }
  Undelivered total;
  const auto add = [&](const Undelivered &messages) {
    total.pending += messages.pending;
    total.lost += messages.lost;
  };
  do {
    const Deadline next = std::min(deadline, Clock::now() + kFlushInterval);
    total = {};
    for (const auto &[number, link] : links) add(link->settle(next));
  } while (total.pending != 0 && Clock::now() < deadline);

  bool last = false;
  if (close) {
    std::lock_guard lock(channels().mutex);
    const auto channel = channels().open.find(handle);
    if (channel == channels().open.end()) return KELVODRIX_ERR_HANDLE;
    total = {};  // with what other threads have sent this moment
    for (const auto &[number, link] : channel->second.links) add(link->close());
    channels().open.erase(channel);
    last = channels().open.empty();
  }
  if (undelivered != nullptr) *undelivered = total.pending + total.lost;
  if (last) run_clean_hooks();
  return status_of(total);
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
    Endpoint parsed;
    const int32_t status = parse_endpoint(endpoint, parsed);
    if (status != KELVODRIX_OK) return status;
    Channel channel{chosen, {{kDefaultDestination, std::make_shared<Link>(parsed, chosen)}}};
    std::lock_guard lock(channels().mutex);
    const uint32_t number = next_number();
    channels().open.emplace(number, std::move(channel));
    *handle = number;
    return KELVODRIX_OK;
  });
}

int32_t kelvodrix_destination(uint32_t handle, const char *endpoint, uint32_t *destination) {
  return guarded([&]() -> int32_t {
    if (endpoint == nullptr || destination == nullptr) return KELVODRIX_ERR_INVALID;
    Endpoint parsed;
    const int32_t status = parse_endpoint(endpoint, parsed);
    if (status != KELVODRIX_OK) return status;
    std::lock_guard lock(channels().mutex);
    const auto channel = channels().open.find(handle);
    if (channel == channels().open.end()) return KELVODRIX_ERR_HANDLE;
    const uint32_t number = next_number();
    channel->second.links.emplace(number, std::make_shared<Link>(parsed, channel->second.options));
    *destination = number;
    return KELVODRIX_OK;
  });
}

int32_t kelvodrix_flush(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered) {
  return guarded([&] { return flush(handle, timeout_ms, undelivered, false); });
}

int32_t kelvodrix_close(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered) {
  return guarded([&] { return flush(handle, timeout_ms, undelivered, true); });
}
