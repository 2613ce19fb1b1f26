// SIGINT and SIGTERM as an end that is looked for; the second one ends the process.
#pragma once

#include <csignal>

namespace quopa {

inline volatile std::sig_atomic_t is_interrupted = 0;

inline void catch_interrupts() {
  struct sigaction action = {};
  action.sa_handler = [](int) { is_interrupted = 1; };
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

}  // namespace quopa
