#include "trace/complaint.h"

#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace trace {

void complain(const char *subject, int error, const char *consequence) {
  char line[1024];
  const char *const reason = error != 0 ? strerrordesc_np(error) : nullptr;
  const int length = std::snprintf(line, sizeof line, "quopa_trace: %s%s%s; %s\n", subject,
                                   reason != nullptr ? ": " : "", reason != nullptr ? reason : "", consequence);
  if (length <= 0) return;
  const size_t bytes = static_cast<size_t>(length) < sizeof line ? static_cast<size_t>(length) : sizeof line - 1;
  line[bytes - 1] = '\n';

  // The signal of a pipe that nobody reads any more would end the process: it is held back and taken away.
  sigset_t pipe_signal;
  sigset_t before;
  sigset_t pending;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  sigpending(&pending);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, &before);
  if (write(STDERR_FILENO, line, bytes) < 0 && errno == EPIPE && sigismember(&pending, SIGPIPE) == 0) {
    const timespec at_once = {};
    sigtimedwait(&pipe_signal, nullptr, &at_once);
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

}  // namespace trace
