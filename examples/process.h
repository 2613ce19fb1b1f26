// What the example processes do alike: options, time, one line on standard error for any failure, and an honest exit
// status.
#pragma once

#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "command_line.h"
#include "kelvodrix.h"

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

// "8 routes in 0.001 s", and how many a second where there are enough of them for a rate to mean anything.
inline std::string format_rate(uint64_t count, const char *what, double seconds) {
  char text[128];
  const int length = std::snprintf(text, sizeof text, "%" PRIu64 " %s in %.3f s", count, what, seconds);
  if (count >= 10000 && seconds > 0) {
    std::snprintf(text + length, sizeof text - static_cast<std::size_t>(length), ": %.0f %s/s",
                  static_cast<double>(count) / seconds, what);
  }
  return text;
}

// Throws unless the bus succeeded.
inline void check(int32_t status, const std::string &what) {
  if (status != KELVODRIX_OK) throw std::runtime_error(what + ": " + kelvodrix_strerror(status));
}

// The main function of a process: fills the options from the command line and runs, which throws when it fails. Returns
// the process's exit status.
template <class Options>
int run_process(const char *name, const char *description, int argc, char **argv, void (*run)(const Options &)) {
  std::signal(SIGPIPE, SIG_DFL);  // a reader who has seen enough ends the process quietly, whoever started it
  try {
    CommandLine command_line(name, description);
    Options options;
    options.add_to(command_line);
    if (const auto status = command_line.parse(argc, argv)) return *status;
    run(options);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) throw std::runtime_error("cannot write to standard output");
    return 0;
  } catch (const std::exception &error) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
}
