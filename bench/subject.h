// What is measured: the message types with their operations.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

#include "fib6Sync.h"
#include "fib6_cfg.h"
#include "korBrokerFib6.h"

namespace bench {

// The operations of the record type R under the name of its message: the exported ones, and the fixed layout's builder.
template <class R>
struct Subject;

#define BENCH_SUBJECT(package, message)                                                       \
  template <>                                                                                 \
  struct Subject<package##_##message> {                                                       \
    static constexpr const char *name = #package "." #message;                                \
    static constexpr auto pack = package##_##message##__pack;                                 \
    static constexpr auto unpack = package##_##message##__unpack;                             \
    static constexpr auto release = package##_##message##_free__unpacked;                     \
    static constexpr auto send_single = package##_##message##__sendsingle;                    \
    static constexpr auto send_batch = package##_##message##__sendbatch;                      \
    static void build_fixed(uint8_t *buffer, const package##_##message *record); /* if any */ \
  };

FIB6_CFG_MESSAGES(BENCH_SUBJECT)
KORBROKERFIB6_MESSAGES(BENCH_SUBJECT)
FIB6SYNC_MESSAGES(BENCH_SUBJECT)
#undef BENCH_SUBJECT

// Ends the program: figures of an operation that does not work are worth nothing.
inline void require(bool condition, const std::string &what) {
  if (!condition) throw std::runtime_error(what);
}

}  // namespace bench
