// Taps, for programs that show what crosses the bus.
#include <memory>

#include "status.h"
#include "transport.h"

using namespace kelvodrix;

struct kelvodrix_tap {
  std::unique_ptr<Tap> tap;
};

int32_t kelvodrix_tap_open(const char *endpoint, const kelvodrix_tap_options *options, kelvodrix_tap **tap) {
  return guarded([&]() -> int32_t {
    constexpr kelvodrix_tap_options kAll = {};
    if (tap == nullptr) return KELVODRIX_ERR_INVALID;
    auto opened = std::make_unique<kelvodrix_tap>();
    const int32_t status = make_tap(endpoint, options != nullptr ? *options : kAll, opened->tap);
    if (status == KELVODRIX_OK) *tap = opened.release();
    return status;
  });
}

int32_t kelvodrix_tap_next(kelvodrix_tap *tap, uint32_t timeout_ms, kelvodrix_frame *frame) {
  return guarded([&]() -> int32_t {
    if (tap == nullptr || frame == nullptr) return KELVODRIX_ERR_INVALID;
    return tap->tap->next(Clock::now() + std::chrono::milliseconds(timeout_ms), *frame);
  });
}

void kelvodrix_tap_stop(kelvodrix_tap *tap) {
  if (tap != nullptr) tap->tap->stop();
}

void kelvodrix_tap_get_counters(const kelvodrix_tap *tap, kelvodrix_tap_counters *counters) {
  if (tap != nullptr && counters != nullptr) *counters = tap->tap->counters();
}

void kelvodrix_tap_close(kelvodrix_tap *tap) { delete tap; }
