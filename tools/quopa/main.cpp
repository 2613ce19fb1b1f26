// quopa: shows, checks and makes the messages of libdrix_fib6, without a bus and without the shared library.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

#include "capture/message.h"
#include "tools/quopa/command.h"
#include "tools/quopa/command_line.h"
#include "tools/quopa/complain.h"

namespace {

int fail(const std::string &what, int status) {
  quopa::complain(what);
  return status;
}

}  // namespace

int main(int argc, char **argv) {
  std::signal(SIGPIPE, SIG_DFL);  // a closed pipe ends the program, also where the caller ignores the signal
  std::ios::sync_with_stdio(false);
  int status = quopa::kGood;
  try {
    status = quopa::parse_command_line(argc, argv)();
  } catch (const quopa::BadInput &error) {
    return fail(error.what(), quopa::kBad);
  } catch (const capture::BadCapture &error) {
    return fail(error.what(), quopa::kBad);
  } catch (const quopa::BadUsage &error) {
    return fail(error.what(), quopa::kUsage);
  } catch (const std::bad_alloc &) {
    return fail("out of memory", quopa::kBad);
  }
  if (!std::cout.flush()) return fail(std::string("standard output: ") + std::strerror(errno), quopa::kBad);
  return status;
}
