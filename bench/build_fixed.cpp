// The shared object exports no builder of the fixed layout, so it is made here, from the same templates.
#include "bench/subject.h"
#include "packages/package.h"

static constinit drix::PackageServices fib6Sync_services;
static constinit drix::PackageServices fib6_cfg_services;
static constinit drix::PackageServices korBrokerFib6_services;
FIB6_CFG_MESSAGES(DRIX_MESSAGE_CONSTANTS)
KORBROKERFIB6_MESSAGES(DRIX_MESSAGE_CONSTANTS)
FIB6SYNC_MESSAGES(DRIX_MESSAGE_CONSTANTS)

namespace bench {

template <class R>
void build_fixed(uint8_t *buffer, const R *record) {
  if constexpr (drix::kFixedLength<R>) drix::build_fixed(drix::kEncoder<R>, buffer, record);
}

#define BENCH_BUILD_FIXED(package, message) template void build_fixed(uint8_t *, const package##_##message *);

FIB6_CFG_MESSAGES(BENCH_BUILD_FIXED)
KORBROKERFIB6_MESSAGES(BENCH_BUILD_FIXED)
FIB6SYNC_MESSAGES(BENCH_BUILD_FIXED)

}  // namespace bench
