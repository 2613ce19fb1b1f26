// A bus that tells on standard error what quopa does with it. To be loaded first too, so that time stands still until
// quopa pauses, and pauses are told. The endpoint "full" takes two messages, "deaf" acknowledges none.
#include <sys/syscall.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "drix_bus.h"
#include "platform/kelvodrix/kelvodrix.h"

namespace {

constexpr int64_t kSecond = 1000000000;

int64_t now = kSecond;
const char *endpoint = "";
uint32_t sent = 0;

}  // namespace

extern "C" {

int clock_gettime(clockid_t clock, std::timespec *time) noexcept {
  if (clock != CLOCK_MONOTONIC) return static_cast<int>(::syscall(SYS_clock_gettime, clock, time));
  *time = {static_cast<std::time_t>(now / kSecond), static_cast<long>(now % kSecond)};
  return 0;
}

int nanosleep(const std::timespec *pause, std::timespec *) {
  const int64_t nanoseconds = pause->tv_sec * kSecond + pause->tv_nsec;
  now += nanoseconds;
  std::fprintf(stderr, "pause %" PRId64 " us\n", (nanoseconds + 500) / 1000);
  return 0;
}

int32_t kelvodrix_open(const char *to, const kelvodrix_options *, uint32_t *handle) {
  endpoint = to;
  *handle = 5;
  return KELVODRIX_OK;
}

int32_t kelvodrix_close(uint32_t, uint32_t, uint64_t *) { return KELVODRIX_OK; }

int32_t kelvodrix_flush(uint32_t, uint32_t, uint64_t *undelivered) {
  const bool is_deaf = std::strcmp(endpoint, "deaf") == 0;
  *undelivered = is_deaf ? sent : 0;
  return is_deaf ? KELVODRIX_ERR_PENDING : KELVODRIX_OK;
}

const char *kelvodrix_strerror(int32_t status) { return status == KELVODRIX_ERR_PENDING ? "late" : "full"; }

int32_t DRIX_SendMsg(uint32_t, DrixSendDescriptor *messages, uint32_t count) {
  if (std::strcmp(endpoint, "full") == 0 && sent + count > 2) return KELVODRIX_ERR_WINDOW;
  sent += count;
  std::fprintf(stderr, "send");
  for (uint32_t i = 0; i < count; ++i)
    std::fprintf(stderr, " %" PRIX32 ":%" PRIu32, messages[i].id, messages[i].length);
  std::fprintf(stderr, "\n");
  return KELVODRIX_OK;
}
}
