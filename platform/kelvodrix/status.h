// What every public function does around its body: no C++ exception leaves it, and no cancellation interrupts it.
#ifndef KELVODRIX_STATUS_H
#define KELVODRIX_STATUS_H

#include <pthread.h>

#include <exception>
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

// Returns what the body does, or the status for the exception that leaves it.
template <typename Body>
int32_t guarded(const Body &body, int cancel_state = PTHREAD_CANCEL_DISABLE) {
  const CancelState state(cancel_state);
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return KELVODRIX_ERR_NO_MEMORY;
  } catch (...) {
    // The unwinding of a thread that a subscriber ends is no C++ exception, and aborts the process unless it passes.
    if (!std::current_exception()) throw;
    return KELVODRIX_ERR_SYSTEM;
  }
}

}  // namespace kelvodrix

#endif
