// The platform's log writer and allocator, found by name in the running process when they are first needed.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

namespace drix {

// First argument of every log call; the platform reads its three fields.
struct LogModule {
  const char *tag;
  const char *name;
  uint32_t id;
};

using LogWriter = void(const LogModule *module, uint32_t level, uint32_t code, const char *file, uint32_t line,
                       const char *function, const char *format, ...);
using Allocator = void *(uint32_t size, uint32_t memory_module, const char *function);
using Deallocator = void(void *block, uint32_t memory_module, const char *function);

inline constexpr uint32_t kMemoryModule = 12;

enum class LogCode : uint32_t { out_of_memory = 12, invalid_input = 22 };

void *heap_allocate(uint32_t size, uint32_t memory_module, const char *function);
void heap_free(void *block, uint32_t memory_module, const char *function);

// A binding unit: the services as one side (decoding or encoding) of one package sees them. Each unit goes from unbound
// to bound once, separately for memory and log, and never back. The pointers are written before their flag is
// published, so they are read without a lock.
struct Services {
  pthread_mutex_t memory_mutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<bool> memory_bound = false;
  Allocator *allocate = heap_allocate;
  Deallocator *free = heap_free;
  const LogModule log_module = {"QUOPA", "QUOPA_MIRAVEL_SERIAL", 0x6200};
  pthread_mutex_t log_mutex = PTHREAD_MUTEX_INITIALIZER;
  LogWriter *log_writer = nullptr;
  std::atomic<bool> log_bound = false;
};

// The slow halves of the next two.
void bind_log_once(Services &unit);
void bind_memory_once(Services &unit);

inline void svc_bind_log(Services &unit) {
  if (!unit.log_bound.load(std::memory_order_acquire)) bind_log_once(unit);
}

inline void svc_bind_mem(Services &unit) {
  if (!unit.memory_bound.load(std::memory_order_acquire)) [[unlikely]]
    bind_memory_once(unit);
}

// Writes one log line, or nothing when the process has no log writer. function is the log name of the failing
// operation, line any number that tells the call site.
template <class... Arguments>
void svc_log(Services &unit, LogCode code, uint32_t line, const char *function, const char *format,
             Arguments... arguments) {
  constexpr uint32_t kLevel = 2;
  svc_bind_log(unit);
  if (unit.log_writer == nullptr) return;
  unit.log_writer(&unit.log_module, kLevel, static_cast<uint32_t>(code), "", line, function, format, arguments...);
}

// Allocate and free through the unit's pair; svc_bind_mem has run. The log names tell the platform who asks.
inline void *svc_alloc(const Services &unit, uint32_t size, const char *function) {
  return unit.allocate(size, kMemoryModule, function);
}

inline void svc_free(const Services &unit, void *block, const char *function) {
  unit.free(block, kMemoryModule, function);
}

}  // namespace drix
