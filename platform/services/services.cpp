#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "drix_services.h"

namespace {

// A word each: atomic without help from a library on every target.
using Counter = std::atomic<size_t>;

Counter blocks_live;
Counter log_lines;

constexpr size_t kLineBytes = 1024;

// How much of the room a formatting function filled, going by its result.
size_t filled(int wanted, size_t room) { return std::min(static_cast<size_t>(std::max(wanted, 0)), room - 1); }

const char *or_dash(const char *text) { return text != nullptr ? text : "-"; }

}  // namespace

void PXR_OsalLogWrite(const drix_services_log_module *module, uint32_t level, uint32_t code, const char *file,
                      uint32_t line, const char *function, const char *format, ...) {
  int saved = errno;
  timespec now{};
  tm utc{};
  clock_gettime(CLOCK_REALTIME, &now);
  gmtime_r(&now.tv_sec, &utc);
  char date[sizeof("YYYY-MM-DDThh:mm:ss")];
  static_cast<void>(std::strftime(date, sizeof(date), "%FT%T", &utc));

  char text[kLineBytes];
  size_t used =
      filled(std::snprintf(text, sizeof(text), "%s.%06ldZ level=%lu code=%lu %s %s(%s:%lu): ", date,
                           now.tv_nsec / 1000L, static_cast<unsigned long>(level), static_cast<unsigned long>(code),
                           or_dash(module != nullptr ? module->name : nullptr), or_dash(function),
                           file != nullptr ? file : "", static_cast<unsigned long>(line)),
             sizeof(text));
  if (format != nullptr) {
    va_list arguments;
    va_start(arguments, format);
    used += filled(std::vsnprintf(text + used, sizeof(text) - used, format, arguments), sizeof(text) - used);
    va_end(arguments);
  }
  // One line, written in one piece so that those of several threads do not mix.
  std::replace(text, text + used, '\n', ' ');
  text[used++] = '\n';
  [[maybe_unused]] ssize_t written = write(STDERR_FILENO, text, used);
  ++log_lines;
  errno = saved;
}

uint32_t PXR_OsalMemUseFlagGet(uint32_t) { return 1; }

void *PXR_OsalMemCacheAlloc(uint32_t size, uint32_t, const char *) {
  void *block = std::malloc(size != 0 ? size : 1);
  if (block != nullptr) ++blocks_live;
  return block;
}

void PXR_OsalMemFree(void *block, uint32_t, const char *) {
  if (block != nullptr) --blocks_live;
  std::free(block);
}

void drix_services_get_counters(drix_services_counters *counters) { *counters = {blocks_live, log_lines}; }
