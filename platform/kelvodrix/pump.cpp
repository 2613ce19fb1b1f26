#include "pump.h"

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "link.h"

namespace kelvodrix {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::microseconds kGather = 100us;
constexpr std::chrono::microseconds kNoRoom = 2ms;

}  // namespace

Pump &Pump::get() {
  static std::mutex mutex;
  static Pump *pump;
  static pid_t owner;
  std::lock_guard lock(mutex);
  if (owner != getpid()) {  // also after fork(), which leaves threads behind
    pump = new Pump;
    owner = getpid();
  }
  return *pump;
}

Pump::Pump() {
  sigset_t all, former;  // signals are for the process's own threads
  sigfillset(&all);
  pthread_sigmask(SIG_SETMASK, &all, &former);
  struct Restore {
    const sigset_t &mask;
    ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
  } const restore{former};
  std::thread([this] { run(); }).detach();
}

bool Pump::add(std::shared_ptr<Link> link) noexcept try {
  std::lock_guard lock(mutex_);
  links_.push_back(std::move(link));
  added_.notify_one();
  return true;
} catch (const std::bad_alloc &) {
  return false;
}

void Pump::run() {
  for (std::list<std::shared_ptr<Link>> links;;) {
    {
      std::unique_lock lock(mutex_);
      if (links.empty()) added_.wait(lock, [&] { return !links_.empty(); });
    }
    std::this_thread::sleep_for(links.empty() ? kGather : kNoRoom);
    {
      std::lock_guard lock(mutex_);
      links.splice(links.end(), links_);
    }
    std::erase_if(links, [](const std::shared_ptr<Link> &link) { return !link->pump(); });
  }
}

}  // namespace kelvodrix
