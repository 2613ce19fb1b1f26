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

// The main function of a process: fills the options from the command line and runs, which throws when it fails. Returns
// the process's exit status.
template <class Options>
int run_process(const char *name, const char *description, int argc, char **argv, void (*run)(const Options &)) {
  try {
    CLI::App app(description, name);
    app.option_defaults()->always_capture_default();
    app.failure_message(
        [&](const CLI::App *, const CLI::Error &error) { return std::string(name) + ": " + error.what() + "\n"; });
    Options options;
    options.add_to(app);
    try {
      app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
      return app.exit(error);
    }
    run(options);
    if (std::fflush(stdout) != 0 || std::ferror(stdout)) throw std::runtime_error("cannot write to standard output");
    return 0;
  } catch (const std::exception &error) {
    std::fflush(stdout);
    std::fprintf(stderr, "%s: %s\n", name, error.what());
    return 1;
  }
}
