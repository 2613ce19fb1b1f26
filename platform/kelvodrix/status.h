// What every public function does around its body: no C++ exception leaves it, and no cancellation interrupts it. The
// forced unwinding of a thread that a subscriber ends has to pass, though, or else the process is aborted.
#ifndef KELVODRIX_STATUS_H
#define KELVODRIX_STATUS_H

#include <cxxabi.h>
#include <pthread.h>

#include <new>

#include "kelvodrix.h"

namespace kelvodrix {

// Sets the thread's cancellation state for as long as it lives.
class CancelState {
 public:
  explicit CancelState(int state) { pthread_setcancelstate(state, &former_); }
  ~CancelState() { pthread_setcancelstate(former_, nullptr); }
  CancelState(const CancelState &) = delete;
  CancelState &operator=(const CancelState &) = delete;
  int former() const { return former_; }

 private:
  int former_;
};

// For functions that catch the unwinding of a thread that ends: it comes as a reference to nothing.
#define KELVODRIX_CATCHES_UNWINDING __attribute__((no_sanitize("null"), noinline))

template <typename Body>
KELVODRIX_CATCHES_UNWINDING int32_t guarded(Body body) {
  CancelState uninterrupted(PTHREAD_CANCEL_DISABLE);
  try {
    return body();
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (const std::bad_alloc &) {
    return KELVODRIX_ERR_NO_MEMORY;
  } catch (...) {
    return KELVODRIX_ERR_SYSTEM;
  }
}

// Whether the body is left by an exception.
template <typename Body>
KELVODRIX_CATCHES_UNWINDING bool throws(Body body) {
  try {
    body();
    return false;
  } catch (const abi::__forced_unwind &) {
    throw;
  } catch (...) {
    return true;
  }
}

}  // namespace kelvodrix

#endif
