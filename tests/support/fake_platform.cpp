#include "fake_platform.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

namespace {

std::mutex mutex;
std::vector<fake_platform::LogCall> log_calls;
std::vector<fake_platform::MemoryCall> allocation_calls;
std::vector<fake_platform::MemoryCall> free_calls;
std::map<void *, uint32_t> live;  // with their sizes
std::size_t until_failure = fake_platform::kNever;

[[noreturn]] void broken_contract(const char *what) {
  std::fprintf(stderr, "platform service called against its contract: %s\n", what);
  std::abort();
}

}  // namespace

namespace fake_platform {

std::vector<LogCall> logs() { return log_calls; }
std::vector<MemoryCall> allocations() { return allocation_calls; }
std::vector<MemoryCall> frees() { return free_calls; }
std::size_t live_blocks() { return live.size(); }

void reset(std::size_t failing_allocation) {
  log_calls.clear();
  allocation_calls.clear();
  free_calls.clear();
  until_failure = failing_allocation;
}

}  // namespace fake_platform

#define PLATFORM_SERVICE extern "C" __attribute__((visibility("default")))

struct LogModule {
  const char *tag;
  const char *name;
  uint32_t id;
};

PLATFORM_SERVICE void PXR_OsalLogWrite(const LogModule *module, uint32_t level, uint32_t code, const char *file,
                                       uint32_t, const char *function, const char *format, ...) {
  if (std::strcmp(module->tag, "QUOPA") != 0 || std::strcmp(module->name, "QUOPA_MIRAVEL_SERIAL") != 0 ||
      module->id != 0x6200 || level != 2 || *file != '\0') {
    broken_contract("log");
  }
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  const std::lock_guard lock(mutex);
  log_calls.push_back({code, function, text});
}

PLATFORM_SERVICE uint32_t PXR_OsalMemUseFlagGet(uint32_t memory_module) { return memory_module == 12 ? 1 : 0; }

PLATFORM_SERVICE void *PXR_OsalMemCacheAlloc(uint32_t size, uint32_t memory_module, const char *function) {
  if (memory_module != 12 || size == 0) broken_contract("allocate");
  const std::lock_guard lock(mutex);
  allocation_calls.push_back({size, function});
  if (until_failure != fake_platform::kNever && until_failure-- == 0) return nullptr;
  void *block = std::malloc(size);
  std::memset(block, 0xA5, size);  // nobody may count on fresh memory being zero
  live[block] = size;
  return block;
}

PLATFORM_SERVICE void PXR_OsalMemFree(void *block, uint32_t memory_module, const char *function) {
  if (memory_module != 12) broken_contract("free");
  const std::lock_guard lock(mutex);
  const auto freed = live.find(block);
  if (freed == live.end()) broken_contract("free of a block that is not live");
  free_calls.push_back({freed->second, function});
  live.erase(freed);
  std::free(block);
}
