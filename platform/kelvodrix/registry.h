// What libdrix_fib6 registers with the bus: one decoder per message ID, and the resource-clean hooks.
#ifndef KELVODRIX_REGISTRY_H
#define KELVODRIX_REGISTRY_H

#include "drix_bus.h"

namespace kelvodrix {

struct Registration {
  DrixDecodeFunc decode = nullptr;  // null: nothing registered
  DrixReleaseFunc release = nullptr;
  uint32_t record_bytes = 0;
};

Registration find_registration(uint32_t id);

void run_clean_hooks();

}  // namespace kelvodrix

#endif
