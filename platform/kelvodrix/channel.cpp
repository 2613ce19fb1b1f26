// Channels: their handles and destinations, the thread that writes what sends leave, and what there is to do after the
// last channel, at exit and at fork.
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <list>
#include <memory>
#include <system_error>
#include <thread>
#include <unordered_map>
#include <utility>
#include <vector>

#include "process.h"
#include "status.h"
#include "transport.h"

namespace kelvodrix {

std::mutex process_mutex;

namespace {

using namespace std::chrono_literals;
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
  std::unordered_map<uint32_t, Channel> open;
  std::list<std::unordered_map<uint32_t, Channel>> former;  // of the processes that this one was forked from
  bool pumped = false;                                      // there is a thread that writes what sends leave
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

std::vector<std::shared_ptr<Link>> all_links() {
  std::vector<std::shared_ptr<Link>> links;
  std::lock_guard lock(process_mutex);
  for (const auto &[handle, channel] : all().open)
    for (const auto &[destination, link] : channel.links) links.push_back(link);
  return links;
}

std::atomic<int> pump_wanted = 0;

// The one thread of a sending process: writes what sends have left, to gather more or for want of room.
void *pump(void *) {
  for (bool left = false;;) {
    if (!left) pump_wanted.wait(0);
    std::this_thread::sleep_for(left ? 1ms : 100us);
    pump_wanted = 0;
    left = false;
    const auto write = [&]() -> int32_t {
      for (const auto &link : all_links()) left |= link->write_left();
      return KELVODRIX_OK;
    };
    left |= guarded(write) != KELVODRIX_OK;
  }
}

// With the lock held.
void start_pump() {
  if (all().pumped) return;
  const SignalsHeldBack held_back;
  pthread_t thread;
  const int error = pthread_create(&thread, nullptr, pump, nullptr);
  if (error != 0) throw std::system_error(error, std::generic_category());
  pthread_detach(thread);
  all().pumped = true;
}

void before_fork() { process_mutex.lock(); }
void in_parent() { process_mutex.unlock(); }

// The parent's channels are left as they are: threads that are gone here may hold their locks.
void in_child() {
  guarded([]() -> int32_t {
    all().former.emplace_back().swap(all().open);
    return KELVODRIX_OK;
  });
  all().pumped = false;
  process_mutex.unlock();
}

__attribute__((constructor)) void at_load() {
  all();
  pthread_atfork(before_fork, in_parent, in_child);
}

__attribute__((destructor)) void at_exit() {
  guarded([start = Clock::now()]() -> int32_t {
    for (const auto &link : all_links()) link->finish(start);
    return KELVODRIX_OK;
  });
}

int32_t send(uint32_t handle, const DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  return guarded([&]() -> int32_t {
    std::shared_ptr<Link> link;
    {
      std::lock_guard lock(process_mutex);
      const Channel *channel = all().find(handle);
      if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
      if (count == 0) return KELVODRIX_OK;
      if (descriptors == nullptr) return KELVODRIX_ERR_INVALID;
      const auto found = channel->links.find(destination);
      if (found == channel->links.end()) return KELVODRIX_ERR_DESTINATION;
      link = found->second;
    }
    bool left = false;
    const int32_t status = link->send({descriptors, count}, left);
    if (left && pump_wanted.exchange(1) == 0) pump_wanted.notify_one();
    return status;
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
    std::lock_guard lock(process_mutex);
    const Channel *channel = all().find(handle);
    if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
    links = channel->links;
  }
  do settle(std::min(deadline, Clock::now() + kFlushInterval));
  while (total.pending && Clock::now() < deadline);

  std::vector<DrixResourceCleanFunc> hooks;
  if (close) {
    std::lock_guard lock(process_mutex);
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
    std::shared_ptr<Link> link;
    if (const int32_t status = make_link(endpoint, chosen, link); status != KELVODRIX_OK) return status;
    Channel channel{chosen, {{kDefaultDestination, link}}};
    std::lock_guard lock(process_mutex);
    start_pump();
    const uint32_t number = all().next_number();
    all().open.emplace(number, std::move(channel));
    *handle = number;
    return KELVODRIX_OK;
  });
}

int32_t kelvodrix_destination(uint32_t handle, const char *endpoint, uint32_t *destination) {
  return guarded([&]() -> int32_t {
    if (destination == nullptr) return KELVODRIX_ERR_INVALID;
    kelvodrix_options options = kDefaultOptions;
    std::unique_lock lock(process_mutex);
    if (const Channel *channel = all().find(handle)) options = channel->options;
    lock.unlock();
    std::shared_ptr<Link> link;
    if (const int32_t status = make_link(endpoint, options, link); status != KELVODRIX_OK) return status;
    lock.lock();
    Channel *const channel = all().find(handle);
    if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
    const uint32_t number = all().next_number();
    channel->links.emplace(number, link);
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

int32_t kelvodrix_checkpoint(uint32_t handle) {
  return guarded([&]() -> int32_t {
    Links links;
    {
      std::lock_guard lock(process_mutex);
      const Channel *channel = all().find(handle);
      if (channel == nullptr) return KELVODRIX_ERR_HANDLE;
      links = channel->links;
    }
    int32_t status = KELVODRIX_OK;
    for (const auto &[number, link] : links)
      if (const int32_t one = link->checkpoint(); one != KELVODRIX_OK) status = one;
    return status;
  });
}

int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc clean) {
  return guarded([&]() -> int32_t {
    if (clean == nullptr) return KELVODRIX_ERR_INVALID;
    std::lock_guard lock(process_mutex);
    std::vector<DrixResourceCleanFunc> &hooks = all().clean_hooks;
    if (std::find(hooks.begin(), hooks.end(), clean) == hooks.end()) hooks.push_back(clean);
    return KELVODRIX_OK;
  });
}
