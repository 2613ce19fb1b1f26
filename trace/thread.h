// What the recorder keeps of a thread.
#pragma once

#include <cstdint>

#include "drix_bus.h"

namespace trace {

struct Thread {
  uint32_t id;                            // 0: not asked for yet
  volatile bool busy;                     // it is recording; a signal handler that sends meanwhile finds it so
  bool registering;                       // it is inside a registration, where the bus may try decoders out
  const DrixSendDescriptor *descriptors;  // of the bus's send function that it is in
};

extern __thread Thread this_thread;

}  // namespace trace
