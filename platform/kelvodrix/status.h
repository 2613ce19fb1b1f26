// Keeps C++ exceptions inside the library: every public function runs its body through guarded().
#ifndef KELVODRIX_STATUS_H
#define KELVODRIX_STATUS_H

#include <new>

#include "kelvodrix.h"

namespace kelvodrix {

template <typename Body>
int32_t guarded(Body body) noexcept {
  try {
    return body();
  } catch (const std::bad_alloc &) {
    return KELVODRIX_ERR_NO_MEMORY;
  } catch (...) {
    return KELVODRIX_ERR_SYSTEM;
  }
}

}  // namespace kelvodrix

#endif
