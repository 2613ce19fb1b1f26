// What the example processes do alike: options, time, one line on standard error for any failure, and an honest exit
// status.
#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

#include "kelvodrix.h"

using Clock = std::chrono::steady_clock;

inline double seconds_since(Clock::time_point start) {
  return std::chrono::duration<double>(Clock::now() - start).count();
}

inline double per_second(uint64_t count, double seconds) {
  return seconds > 0 ? static_cast<double>(count) / seconds : 0;
}

// Throws unless the bus succeeded.
inline void check(int32_t status, const std::string &what) {
  if (status != KELVODRIX_OK) throw std::runtime_error(what + ": " + kelvodrix_strerror(status));
}

// Parses the command line and calls body, which throws when it fails. Returns the process's exit status.
template <class Body>
int run_process(CLI::App &app, int argc, char **argv, Body body) {
  const std::string name = app.get_name();
  app.failure_message([name](const CLI::App *, const CLI::Error &error) { return name + ": " + error.what() + "\n"; });
  CLI11_PARSE(app, argc, argv);
  try {
    body();
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) throw std::runtime_error("cannot write to standard output");
    return 0;
  } catch (const std::exception &error) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", name.c_str(), error.what());
    return 1;
  }
}
