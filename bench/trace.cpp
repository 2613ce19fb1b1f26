// What it costs a process to be traced: sends and decodes of the route message, to a bus that does nothing, in
// processes with the recorder and without it in turn. The trace goes to FOLDER, best one in memory.
//
// Usage: drix_bench_trace FOLDER
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "drix_bus.h"
#include "fib6Sync.h"

DrixDecodeFunc last_decoder();

namespace {

using Message = fib6Sync_ipv6FwdUpdateMsg;

struct Case {
  const char *name;
  uint32_t batch;  // 0: a decode
  double limit;    // of what the recorder may add, in nanoseconds a message; 0: none is set
};
constexpr Case kCases[] = {{"a single send", 1, 150},
                           {"sends in batches of 16", 16, 60},
                           {"sends in batches of 256", 256, 0},
                           {"a decode", 0, 100}};
constexpr std::size_t kCaseCount = std::size(kCases);
constexpr uint32_t kMessages = 1u << 20;  // several times the ring
constexpr int kRounds = 7;

using Figures = std::array<double, kCaseCount>;

void require(bool condition, const char *what) {
  if (condition) return;
  std::fprintf(stderr, "drix_bench_trace: %s\n", what);
  std::exit(1);
}

double cpu_nanoseconds() {
  timespec now;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

template <class Operation>
double time_of_a_message(uint32_t calls, uint32_t messages, Operation operation) {
  for (uint32_t i = 0; i < calls / 2; ++i) operation(i);  // once around the ring, whose first use costs more
  const double start = cpu_nanoseconds();
  for (uint32_t i = 0; i < calls; ++i) operation(i);
  return (cpu_nanoseconds() - start) / (static_cast<double>(calls) * messages);
}

Figures measure() {
  std::vector<Message> records(1024);
  for (uint32_t i = 0; i < records.size(); ++i) {
    Message &record = records[i];
    record.f0.f0 = 1;
    record.f1.f0 = i;
    for (uint32_t &word : record.f1.f3) word = 0x20010DB8 + i;
    record.f1.f4 = 64;
  }
  require(DRIX_RegIDLFuncHook(1, reinterpret_cast<DrixDecodeFunc>(fib6Sync_ipv6FwdUpdateMsg__unpack),
                              reinterpret_cast<DrixReleaseFunc>(fib6Sync_ipv6FwdUpdateMsg_free__unpacked)) == 0,
          "the decoder is not registered");
  const DrixDecodeFunc decode = last_decoder();
  uint8_t image[256];
  uint32_t length = sizeof image;
  require(fib6Sync_ipv6FwdUpdateMsg__pack(&records[1], image, &length) == 0, "a record is not packed");

  Figures figures;
  for (std::size_t i = 0; i < kCaseCount; ++i) {
    const uint32_t batch = kCases[i].batch;
    const uint32_t calls = kMessages / std::max(batch, 1u);
    figures[i] = batch == 0 ? time_of_a_message(calls, 1,
                                                [&](uint32_t) {
                                                  Message record;
                                                  decode(image, length, &record);
                                                })
                            : time_of_a_message(calls, batch, [&](uint32_t call) {
                                const std::size_t first = std::size_t{call} * batch % records.size();
                                fib6Sync_ipv6FwdUpdateMsg__sendmsg(1, &records[first], batch);
                              });
  }
  return figures;
}

Figures measure_in_another_process(const char *program, const char *folder) {
  int ends[2];
  require(pipe(ends) == 0, "no pipe");
  const pid_t child = fork();
  require(child >= 0, "no process");
  if (child == 0) {
    dup2(ends[1], STDOUT_FILENO);
    if (folder != nullptr) {
      setenv("LD_LIBRARY_PATH", BENCH_TRACE_FOLDER, 1);  // it may have a blank, which the next may not
      setenv("LD_PRELOAD", BENCH_TRACE_LIBRARY, 1);
      setenv("QUOPA_TRACE_DIR", folder, 1);
    }
    execl(program, program, "--measure", nullptr);
    std::_Exit(1);
  }
  close(ends[1]);
  Figures figures;
  const bool complete = read(ends[0], figures.data(), sizeof figures) == sizeof figures;
  close(ends[0]);
  int status = 0;
  waitpid(child, &status, 0);
  require(complete && status == 0, "a process has failed");
  return figures;
}

}  // namespace

int main(int argc, char **argv) {
  require(argc == 2, "usage: drix_bench_trace FOLDER");
  if (std::strcmp(argv[1], "--measure") == 0) {
    const Figures figures = measure();
    return write(STDOUT_FILENO, figures.data(), sizeof figures) == sizeof figures ? 0 : 1;
  }
  const std::string folder = std::string(argv[1]) + "/drix_bench_trace." + std::to_string(getpid());
  std::vector<Figures> without;
  std::vector<Figures> with;
  for (int round = 0; round < kRounds; ++round) {
    without.push_back(measure_in_another_process("/proc/self/exe", nullptr));
    std::filesystem::create_directory(folder);
    with.push_back(measure_in_another_process("/proc/self/exe", folder.c_str()));
    require(!std::filesystem::is_empty(folder), "there is no trace");
    std::filesystem::remove_all(folder);
  }
  std::printf("nanoseconds a message     untraced   traced    added    limit\n");
  bool met = true;
  for (std::size_t i = 0; i < kCaseCount; ++i) {
    const auto median = [i](std::vector<Figures> &runs) {
      std::sort(runs.begin(), runs.end(), [i](const Figures &a, const Figures &b) { return a[i] < b[i]; });
      return runs[runs.size() / 2][i];
    };
    const double untraced = median(without);
    const double traced = median(with);
    const double added = traced - untraced;
    std::printf("%-25s %8.1f %8.1f %8.1f ", kCases[i].name, untraced, traced, added);
    if (kCases[i].limit == 0) {
      std::printf("       -\n");
      continue;
    }
    met = met && added <= kCases[i].limit;
    std::printf("%8.0f %s\n", kCases[i].limit, added <= kCases[i].limit ? "met" : "missed");
  }
  return met ? 0 : 1;
}
