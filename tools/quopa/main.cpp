// quopa: shows, checks and makes the messages of libdrix_fib6, without a bus and without the shared library.
#include <cerrno>
#include <csignal>
#include <cstring>
#include <iostream>

#include "capture/message.h"
#include "describe/printable.h"
#include "tools/quopa/command.h"
#include "tools/quopa/command_line.h"

namespace {

int complain(const std::string &what, int status) {
  std::cerr << "quopa: " << drix::describe::printable(what) << '\n';
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
    return complain(error.what(), quopa::kBad);
  } catch (const capture::BadCapture &error) {
    return complain(error.what(), quopa::kBad);
  } catch (const quopa::BadUsage &error) {
    return complain(error.what(), quopa::kUsage);
  } catch (const std::bad_alloc &) {
    return complain("out of memory", quopa::kBad);
  }
  if (!std::cout.flush()) return complain(std::string("standard output: ") + std::strerror(errno), quopa::kBad);
  return status;
}
