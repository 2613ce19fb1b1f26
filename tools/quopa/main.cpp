// quopa: shows, checks and makes the messages of libdrix_fib6, without a bus and without the shared library.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

#include "tools/quopa/command.h"

namespace {

int complain(const std::string &what, int status) {
  std::cerr << "quopa: " << what << '\n';
  return status;
}

int run_command(int argc, char **argv) {
  CLI::App app("Shows, checks and makes the messages of libdrix_fib6.", "quopa");
  quopa::Run run;
  app.set_version_flag("--version", "quopa " QUOPA_VERSION);
  app.require_subcommand(1);
  app.footer(
      "Status: 0 good; 1 bad input, a rejected buffer or differences; 2 wrong usage.\n"
      "\"quopa COMMAND --help\" explains a command, with examples.");
  quopa::add_types(app, run);
  quopa::add_decode(app, run);
  quopa::add_encode(app, run);
  quopa::add_annotate(app, run);
  quopa::add_complete(app, run);
  try {
    app.parse(argc, argv);
  } catch (const CLI::Success &wanted) {
    return app.exit(wanted);
  } catch (const CLI::ParseError &error) {
    return complain(error.what(), quopa::kUsage);
  }
  return run();
}

}  // namespace

int main(int argc, char **argv) {
  std::signal(SIGPIPE, SIG_DFL);  // a closed pipe ends the program, also where the caller ignores the signal
  std::ios::sync_with_stdio(false);
  int status = quopa::kGood;
  try {
    status = run_command(argc, argv);
  } catch (const quopa::BadInput &error) {
    return complain(error.what(), quopa::kBad);
  } catch (const quopa::BadUsage &error) {
    return complain(error.what(), quopa::kUsage);
  } catch (const std::bad_alloc &) {
    return complain("out of memory", quopa::kBad);
  }
  if (!std::cout.flush()) return complain(std::string("standard output: ") + std::strerror(errno), quopa::kBad);
  return status;
}
