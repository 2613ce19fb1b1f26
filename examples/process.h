// What the example processes do alike: options, one line on standard error for any failure, and an honest exit status.
#pragma once

#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>
#include <stdexcept>
#include <string>

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
