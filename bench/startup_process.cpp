// A process that loads the bus and then the library, or with --both the library, which brings the bus along, and uses
// it for the first time. Prints for each step its CPU time in nanoseconds, its minor page faults and its name. It is not
// linked to the C++ library, which the bus needs and so is part of what loading the bus costs.
//
// drix_bench_startup_process [--both]
#include <dlfcn.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/resource.h>
#include <time.h>

#include "korBrokerFib6.h"

namespace {

void require(bool condition, const char *what) {
  if (condition) return;
  fprintf(stderr, "drix_bench_startup_process: %s: %s\n", what, dlerror());
  exit(1);
}

double cpu_nanoseconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

long page_faults() {
  rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_minflt;
}

struct Step {
  const char *name;
  double nanoseconds;
  long faults;
};

Step steps[8];
size_t step_count = 0;

template <class Operation>
void take(const char *name, Operation operation) {
  const long faults = page_faults();
  const double start = cpu_nanoseconds();
  operation();
  const double end = cpu_nanoseconds();
  steps[step_count++] = {name, end - start, page_faults() - faults};
}

void *load(const char *name, const char *path) {
  void *library = nullptr;
  take(name, [&] { library = dlopen(path, RTLD_NOW | RTLD_GLOBAL); });
  require(library != nullptr, path);
  return library;
}

void use(void *library) {
  const auto find = [library](const char *name) {
    void *const symbol = dlsym(library, name);
    require(symbol != nullptr, name);
    return symbol;
  };
  using Init = int32_t (*)();
  const char *const names[] = {"fib6_cfg_recv_init", "fib6_cfg_send_init",  "fib6_recv_init",
                               "fib6_send_init",     "fib6_sync_recv_init", "fib6_sync_send_init"};
  Init inits[6];
  for (size_t i = 0; i < 6; ++i) inits[i] = reinterpret_cast<Init>(find(names[i]));
  const auto pack = reinterpret_cast<decltype(&korBrokerFib6_ipv6Fwd__pack)>(find("korBrokerFib6_ipv6Fwd__pack"));
  const auto unpack = reinterpret_cast<decltype(&korBrokerFib6_ipv6Fwd__unpack)>(find("korBrokerFib6_ipv6Fwd__unpack"));
  const auto send =
      reinterpret_cast<decltype(&korBrokerFib6_ipv6Fwd__sendsingle)>(find("korBrokerFib6_ipv6Fwd__sendsingle"));

  take("registration", [&] {
    for (const Init init : inits) require(init() == 0, "registration fails");
  });
  korBrokerFib6_ipv6Fwd record = {};
  record.f0 = 7;
  uint8_t image[1000];
  uint32_t length = sizeof image;
  take("first pack", [&] { pack(&record, image, &length); });
  length = sizeof image;
  take("second pack", [&] { pack(&record, image, &length); });
  korBrokerFib6_ipv6Fwd decoded = {};
  take("first unpack", [&] { unpack(image, length, &decoded); });
  take("second unpack", [&] { unpack(image, length, &decoded); });
  require(decoded.f0 == record.f0, "the record is not decoded");
  take("first send", [&] { send(1, &record, 1, 0); });
}

}  // namespace

int main(int argc, char **argv) {
  take("nothing", [] {});  // what the clock and the counter need at their own first use
  step_count = 0;
  if (argc == 2 && strcmp(argv[1], "--both") == 0) {
    load("dlopen of both", BENCH_LIBRARY);
  } else {
    load("dlopen of the bus", BENCH_BUS);
    use(load("dlopen", BENCH_LIBRARY));
  }
  for (size_t i = 0; i < step_count; ++i) {
    printf("%.0f %ld %s\n", steps[i].nanoseconds, steps[i].faults, steps[i].name);
  }
  return 0;
}
