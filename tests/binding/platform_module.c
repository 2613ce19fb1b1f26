// A platform with some of its services missing, to be loaded and unloaded while a test runs. In C, as it is compiled
// once for each set of services.
#include "platform_module.h"

#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>

#define SERVICE __attribute__((visibility("default")))

static uint32_t flag_calls;
static LogRecord last_log;
static MemoryRecord last_memory;

SERVICE uint32_t module_flag_calls(void) { return __atomic_load_n(&flag_calls, __ATOMIC_SEQ_CST); }
SERVICE const LogRecord *module_last_log(void) { return &last_log; }
SERVICE const MemoryRecord *module_last_memory(void) { return &last_memory; }

#ifdef WITH_FLAG
SERVICE uint32_t PXR_OsalMemUseFlagGet(uint32_t memory_module) {
  __atomic_fetch_add(&flag_calls, 1, __ATOMIC_SEQ_CST);
  return memory_module == 12 ? WITH_FLAG : 0;
}
#endif

#ifdef WITH_ALLOCATOR
SERVICE void *PXR_OsalMemCacheAlloc(uint32_t size, uint32_t memory_module, const char *function) {
  last_memory = (MemoryRecord){size, NULL, memory_module, function};
  return malloc(size);
}
#endif

#ifdef WITH_FREE
SERVICE void PXR_OsalMemFree(void *block, uint32_t memory_module, const char *function) {
  last_memory = (MemoryRecord){0, block, memory_module, function};
  free(block);
}
#endif

#ifdef WITH_LOG
SERVICE void PXR_OsalLogWrite(const void *module, uint32_t level, uint32_t code, const char *file, uint32_t line,
                              const char *function, const char *format, ...) {
  last_log = (LogRecord){last_log.calls + 1, module, level, code, file, line, function, format, {0}};
  va_list arguments;
  va_start(arguments, format);
  vsnprintf(last_log.text, sizeof last_log.text, format, arguments);
  va_end(arguments);
}
#endif
