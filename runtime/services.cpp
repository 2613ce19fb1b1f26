#include "runtime/services.h"

#include <dlfcn.h>

#include <cstdlib>

namespace drix {
namespace {

class Lock {
 public:
  explicit Lock(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~Lock() { pthread_mutex_unlock(&mutex_); }
  Lock(const Lock &) = delete;
  Lock &operator=(const Lock &) = delete;

 private:
  pthread_mutex_t &mutex_;
};

template <class Function>
Function *find_in_process(const char *name) {
  return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

bool platform_memory_wanted() {
  constexpr uint32_t kPlatformAllocator = 1;
  auto *use_flag = find_in_process<uint32_t(uint32_t)>("PXR_OsalMemUseFlagGet");
  return use_flag != nullptr && use_flag(kMemoryModule) == kPlatformAllocator;
}

}  // namespace

void *heap_allocate(uint32_t size, uint32_t /*memory_module*/, const char * /*function*/) { return std::malloc(size); }

void heap_free(void *block, uint32_t /*memory_module*/, const char * /*function*/) { std::free(block); }

void bind_log_once(Services &unit) {
  const Lock lock(unit.log_mutex);
  if (unit.log_bound.load(std::memory_order_relaxed)) return;
  unit.log_writer = find_in_process<LogWriter>("PXR_OsalLogWrite");
  unit.log_bound.store(true, std::memory_order_release);
}

void bind_memory_once(Services &unit) {
  const Lock lock(unit.memory_mutex);
  if (unit.memory_bound.load(std::memory_order_relaxed)) return;
  if (platform_memory_wanted()) {
    auto *allocate = find_in_process<Allocator>("PXR_OsalMemCacheAlloc");
    auto *free = find_in_process<Deallocator>("PXR_OsalMemFree");
    // A block must go back to where it came from, so half a pair is none.
    if (allocate != nullptr && free != nullptr) {
      unit.allocate = allocate;
      unit.free = free;
    }
  }
  unit.memory_bound.store(true, std::memory_order_release);
}

}  // namespace drix
