// The turns in which files are made and decoders are added, one thread at a time.
#pragma once

#include <csignal>

namespace trace {

// What is done meanwhile must not show outside: it leaves errno as it is and does not end with the thread. Nor is it
// interrupted by a handler, which might fork a child that goes on with it.
class Unnoticed {
 public:
  Unnoticed();
  ~Unnoticed();
  Unnoticed(const Unnoticed &) = delete;
  Unnoticed &operator=(const Unnoticed &) = delete;

 private:
  int error_;
  int cancel_state_ = 0;
  sigset_t signals_;
};

// For a thread that is busy, so that no handler that interrupts it asks for a turn of its own.
class Turn {
 public:
  Turn();
  ~Turn();
  Turn(const Turn &) = delete;
  Turn &operator=(const Turn &) = delete;

 private:
  Unnoticed unnoticed_;
};

// In a child, where nobody is who could end a turn.
void restart_turns();

}  // namespace trace
