// What the recorder keeps of a thread.
#pragma once

#include <cstdint>

#include "drix_bus.h"

namespace trace {

// A call of the bus's send functions that a thread is in, or has left by a jump or an exception.
struct SendCall {
  const DrixSendDescriptor *messages;
  uintptr_t frame;  // where in the stack
};

struct Thread {
  uint32_t id;         // 0: not asked for yet
  volatile bool busy;  // it is recording; a signal handler that sends meanwhile finds it so
  SendCall send;
};

extern __thread Thread this_thread;

// While it lives, the thread's recording calls are lost: those of a signal handler, which must not wait for what it has
// interrupted.
class Busy {
 public:
  Busy() { this_thread.busy = true; }
  ~Busy() { this_thread.busy = false; }
  Busy(const Busy &) = delete;
  Busy &operator=(const Busy &) = delete;
};

}  // namespace trace
