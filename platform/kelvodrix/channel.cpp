// Channels: their handles, their destinations, and what is called after the last of them.
#include <algorithm>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "link.h"
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
  std::mutex mutex;  // guards what follows; never held while anything waits
  std::unordered_map<uint32_t, Channel> open;
  // Handles and destinations share one sequence of numbers, so that neither passes for the other.
  uint32_t last_number = 0;
  std::vector<DrixResourceCleanFunc> clean_hooks;

  Channel *find(uint32_t handle) {
    const auto found = open.find(handle);
    return found != open.end() ? &found->second : nullptr;
  }
  uint32_t next_number() {
    while (++last_number == 0 || open.contains(last_number)) {
    }
    return last_number;
  }
};

// Never destroyed: threads may still be sending while the process exits.
Channels &all() {
  static Channels &instance = *new Channels;
  return instance;
}

int32_t send(uint32_t handle, const DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  return guarded([&]() -> int32_t {
    std::shared_ptr<Link> link;
    {
      std::lock_guard lock(all().mutex);
      const Channel *channel = all().find(handle);
      if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
      if (count == 0) return KELVODRIX_OK;
      if (descriptors == nullptr) return KELVODRIX_ERR_INVALID;
      const auto found = channel->links.find(destination);
      if (found == channel->links.end()) return KELVODRIX_ERR_DESTINATION;
      link = found->second;
    }
    return link->send({descriptors, count});
  });
}

int32_t flush(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered, bool close) {
  const Deadline deadline = Clock::now() + milliseconds(timeout_ms);
  Links links;
  Undelivered total;
  const auto settle = [&](Deadline until) {
    total = {};
    for (const auto &[number, link] : links) link->settle(until, close && until == Deadline(), total);
  };
  {
    std::lock_guard lock(all().mutex);
    const Channel *channel = all().find(handle);
    if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
    links = channel->links;
  }
  do settle(std::min(deadline, Clock::now() + kFlushInterval));
  while (total.pending && Clock::now() < deadline);

  std::vector<DrixResourceCleanFunc> hooks;
  if (close) {
    std::lock_guard lock(all().mutex);
    Channel *channel = all().find(handle);
    if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
    links.swap(channel->links);
    all().open.erase(handle);
    if (all().open.empty()) hooks = all().clean_hooks;
    settle(Deadline());  // with what other threads have sent this moment
  }
  if (undelivered != nullptr) *undelivered = total.messages;
  for (DrixResourceCleanFunc hook : hooks) hook();
  return total.pending ? KELVODRIX_ERR_PENDING : total.messages != 0 ? KELVODRIX_ERR_LOST : KELVODRIX_OK;
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
    if (handle == nullptr || chosen.window_frames == 0 || chosen.window_frames > kMaxWindowFrames ||
        chosen.window_bytes == 0)
      return KELVODRIX_ERR_INVALID;
    Endpoint parsed;
    if (const int32_t status = parse_endpoint(endpoint, parsed); status != KELVODRIX_OK) return status;
    Channel channel{chosen, {{kDefaultDestination, std::make_shared<Link>(parsed, chosen)}}};
    std::lock_guard lock(all().mutex);
    const uint32_t number = all().next_number();
    all().open.emplace(number, std::move(channel));
    *handle = number;
    return KELVODRIX_OK;
  });
}

int32_t kelvodrix_destination(uint32_t handle, const char *endpoint, uint32_t *destination) {
  return guarded([&]() -> int32_t {
    if (destination == nullptr) return KELVODRIX_ERR_INVALID;
    Endpoint parsed;
    if (const int32_t status = parse_endpoint(endpoint, parsed); status != KELVODRIX_OK) return status;
    std::lock_guard lock(all().mutex);
    Channel *channel = all().find(handle);
    if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
    const uint32_t number = all().next_number();
    channel->links.emplace(number, std::make_shared<Link>(parsed, channel->options));
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

int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc clean) {
  return guarded([&]() -> int32_t {
    if (clean == nullptr) return KELVODRIX_ERR_INVALID;
    std::lock_guard lock(all().mutex);
    std::vector<DrixResourceCleanFunc> &hooks = all().clean_hooks;
    if (std::find(hooks.begin(), hooks.end(), clean) == hooks.end()) hooks.push_back(clean);
    return KELVODRIX_OK;
  });
}
