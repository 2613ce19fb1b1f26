// What a process pays once: loading the library, registering its messages, and the first call of an operation, which
// binds the platform's services. Each measurement is made in a fresh process, so it takes Google Benchmark's manual
// time, which is that process's CPU time.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "korBrokerFib6.h"

namespace {

using Route = korBrokerFib6_ipv6Fwd;

double cpu_time() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + 1e-9 * static_cast<double>(now.tv_nsec);
}

struct Seconds {
  double load;
  double registration;
  double first_pack;
  double second_pack;
  double first_unpack;
  double second_unpack;
  double first_send;
};

void require(bool condition, const char *what) {
  if (condition) return;
  std::fprintf(stderr, "drix_bench_startup: %s\n", what);
  std::_Exit(1);
}

template <class Operation>
double time_of(Operation operation) {
  const double start = cpu_time();
  operation();
  return cpu_time() - start;
}

// What a process measures that has not loaded the library yet.
Seconds measure() {
  Seconds seconds;
  void *library = nullptr;
  seconds.load = time_of([&] { library = dlopen(BENCH_LIBRARY, RTLD_NOW); });
  require(library != nullptr, "the library does not load");
  const auto find = [&](const std::string &name) {
    void *const symbol = dlsym(library, name.c_str());
    require(symbol != nullptr, name.c_str());
    return symbol;
  };
  int32_t (*inits[6])();
  std::size_t count = 0;
  for (const char *prefix : {"fib6_cfg", "fib6", "fib6_sync"}) {
    for (const char *suffix : {"_recv_init", "_send_init"}) {
      inits[count++] = reinterpret_cast<int32_t (*)()>(find(std::string(prefix) + suffix));
    }
  }
  seconds.registration = time_of([&] {
    for (const auto init : inits) require(init() == 0, "registration fails");
  });
  const auto pack = reinterpret_cast<decltype(&korBrokerFib6_ipv6Fwd__pack)>(find("korBrokerFib6_ipv6Fwd__pack"));
  const auto unpack = reinterpret_cast<decltype(&korBrokerFib6_ipv6Fwd__unpack)>(find("korBrokerFib6_ipv6Fwd__unpack"));
  const auto send =
      reinterpret_cast<decltype(&korBrokerFib6_ipv6Fwd__sendsingle)>(find("korBrokerFib6_ipv6Fwd__sendsingle"));
  Route record = {};
  record.f0 = 7;
  uint8_t image[1000];
  uint32_t length = sizeof image;
  seconds.first_pack = time_of([&] { pack(&record, image, &length); });
  length = sizeof image;
  seconds.second_pack = time_of([&] { pack(&record, image, &length); });
  Route decoded;
  seconds.first_unpack = time_of([&] { unpack(image, length, &decoded); });
  seconds.second_unpack = time_of([&] { unpack(image, length, &decoded); });
  require(decoded.f0 == record.f0, "the record is not decoded");
  seconds.first_send = time_of([&] { send(1, &record, 1, 0); });
  return seconds;
}

Seconds measure_in_a_fresh_process() {
  int ends[2];
  require(pipe(ends) == 0, "no pipe");
  const pid_t child = fork();
  require(child >= 0, "no process");
  Seconds seconds;
  if (child == 0) {
    seconds = measure();
    require(write(ends[1], &seconds, sizeof seconds) == sizeof seconds, "no answer");
    std::_Exit(0);
  }
  close(ends[1]);
  const bool complete = read(ends[0], &seconds, sizeof seconds) == sizeof seconds;
  close(ends[0]);
  int status;
  waitpid(child, &status, 0);
  require(complete && status == 0, "a process has failed");
  return seconds;
}

}  // namespace

int main(int argc, char **argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  const struct {
    const char *column;
    double Seconds::*figure;
  } kCases[] = {
      {"dlopen", &Seconds::load},
      {"registration", &Seconds::registration},
      {"first pack", &Seconds::first_pack},
      {"second pack", &Seconds::second_pack},
      {"first unpack", &Seconds::first_unpack},
      {"second unpack", &Seconds::second_unpack},
      {"first send", &Seconds::first_send},
  };
  for (const auto &each : kCases) {
    const std::string name = std::string("once in a process/a process/") + each.column;
    benchmark::RegisterBenchmark(name.c_str(),
                                 [figure = each.figure](benchmark::State &state) {
                                   for (auto _ : state) state.SetIterationTime(measure_in_a_fresh_process().*figure);
                                   state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
                                 })
        ->UseManualTime()
        ->Iterations(20);
  }
  return benchmark::RunSpecifiedBenchmarks() > 0 ? 0 : 1;
}
