// The kernel's IPv6 routes, and their changes.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>

#include "kernel_mirror.h"
#include "live_table.h"

namespace live {

class KernelRoutes {
 public:
  virtual ~KernelRoutes() = default;

  // Can be read from when there is something to take.
  virtual int fd() const = 0;

  // Reads the whole table into the one that was given.
  virtual void read_all() = 0;

  // Takes what has changed, some thousand events at most, and reads the whole table again when that is due.
  virtual void take_changes() = 0;

  // How long it is until take_changes() has something to do, whether there are changes or not.
  virtual std::chrono::milliseconds due() const = 0;

  struct Counters {
    uint64_t dumps = 0;   // of the whole table
    uint64_t events = 0;  // of routes and interfaces
    uint64_t losses = 0;  // of events
    uint64_t left_out = 0;
    double dump_seconds = 0;  // the last time that the whole table was read
    bool in_doubt = false;    // the whole table will be read again
  };
  virtual Counters counters() const = 0;
};

// Listens to the kernel from now on, with room for so many KiB of events, or as much as this user may have. The table is only written to by the object's functions. Throws std::runtime_error
// when this build has no libmnl.
std::unique_ptr<KernelRoutes> open_kernel_routes(LiveTable &table, KernelMirror::NameInterface name_interface,
                                                 uint32_t buffer);

}  // namespace live
