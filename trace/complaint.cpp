#include "trace/complaint.h"

#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>

#include "trace/turn.h"

namespace trace {
namespace {

struct stat at_start;
bool was_open = false;

bool is_as_at_start() {
  struct stat now;
  return was_open && fstat(STDERR_FILENO, &now) == 0 && now.st_dev == at_start.st_dev && now.st_ino == at_start.st_ino;
}

bool takes_a_line() {
  pollfd wanted = {STDERR_FILENO, POLLOUT, 0};
  return poll(&wanted, 1, 0) == 1;
}

iovec part(const char *text) { return {const_cast<char *>(text), std::strlen(text)}; }

}  // namespace

void find_standard_error() { was_open = fstat(STDERR_FILENO, &at_start) == 0; }

void complain(const char *subject, int error, const char *consequence) {
  const Unnoticed unnoticed;
  if (!is_as_at_start() || !takes_a_line()) return;
  const char *const reason = error != 0 ? strerrordesc_np(error) : nullptr;
  const iovec line[] = {part("quopa_trace: "),
                        part(subject),
                        part(reason != nullptr ? ": " : ""),
                        part(reason != nullptr ? reason : ""),
                        part("; "),
                        part(consequence),
                        part("\n")};
  // The signal of a pipe that nobody reads any more would end the process: it is held back, and taken away.
  sigset_t pipe_signal;
  sigpending(&pipe_signal);
  const bool was_pending = sigismember(&pipe_signal, SIGPIPE) != 0;
  if (writev(STDERR_FILENO, line, sizeof line / sizeof line[0]) < 0 && errno == EPIPE && !was_pending) {
    sigemptyset(&pipe_signal);
    sigaddset(&pipe_signal, SIGPIPE);
    const timespec at_once = {};
    sigtimedwait(&pipe_signal, nullptr, &at_once);
  }
}

}  // namespace trace
