// Where there is no libmnl.
#include <stdexcept>

#include "kernel_routes.h"

namespace live {

// NOLINTNEXTLINE(performance-unnecessary-value-param): as where there is libmnl
std::unique_ptr<KernelRoutes> open_kernel_routes(LiveTable &, KernelMirror::NameInterface, uint32_t) {
  throw std::runtime_error("this build cannot ask the kernel for its routes: there was no libmnl (Debian: libmnl-dev)");
}

}  // namespace live
