// A platform with some of its services missing, to be loaded and unloaded while a test runs.
#include "platform_module.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#define SERVICE extern "C" __attribute__((visibility("default")))

namespace {
std::atomic<uint32_t> flag_calls = 0;
LogRecord last_log;
MemoryRecord last_memory;
}  // namespace

SERVICE uint32_t module_flag_calls() { return flag_calls; }
SERVICE const LogRecord *module_last_log() { return &last_log; }
SERVICE const MemoryRecord *module_last_memory() { return &last_memory; }

#ifdef WITH_FLAG
SERVICE uint32_t PXR_OsalMemUseFlagGet(uint32_t memory_module) {
  ++flag_calls;
  return memory_module == 12 ? WITH_FLAG : 0;
}
#endif

#ifdef WITH_ALLOCATOR
SERVICE void *PXR_OsalMemCacheAlloc(uint32_t size, uint32_t memory_module, const char *function) {
  last_memory = {size, nullptr, memory_module, function};
  return std::malloc(size);
}
#endif

#ifdef WITH_FREE
SERVICE void PXR_OsalMemFree(void *block, uint32_t memory_module, const char *function) {
  last_memory = {0, block, memory_module, function};
  std::free(block);
}
#endif

#ifdef WITH_LOG
SERVICE void PXR_OsalLogWrite(const void *module, uint32_t level, uint32_t code, const char *file, uint32_t line,
                              const char *function, const char *format, ...) {
  last_log = {last_log.calls + 1, module, level, code, file, line, function, format, {}};
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(last_log.text, sizeof last_log.text, format, arguments);
  va_end(arguments);
}
#endif
