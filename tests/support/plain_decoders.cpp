// The decoders of all message types without the quick readers. A program that holds them finds them under their
// exported names before those of the shared object.
#include "fib6Sync.h"
#include "fib6_cfg.h"
#include "korBrokerFib6.h"
#include "packages/package.h"

static_assert(!drix::kQuickReaders);

#define PLAIN_DECODER(package, message)                                                                         \
  uint32_t package##_##message##__unpack(const uint8_t *buffer, uint32_t length, package##_##message *record) { \
    return drix::unpack(buffer, length, record);                                                                \
  }                                                                                                             \
  void package##_##message##_free__unpacked(package##_##message *record) { drix::free_unpacked(record); }

#define PLAIN_PACKAGE(package, LIST)                         \
  static constinit drix::PackageServices package##_services; \
  LIST(DRIX_MESSAGE_CONSTANTS)                               \
  extern "C" {                                               \
  LIST(PLAIN_DECODER)                                        \
  }

PLAIN_PACKAGE(fib6_cfg, FIB6_CFG_MESSAGES)
PLAIN_PACKAGE(korBrokerFib6, KORBROKERFIB6_MESSAGES)
PLAIN_PACKAGE(fib6Sync, FIB6SYNC_MESSAGES)
