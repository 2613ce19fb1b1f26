#include "trace/turn.h"

#include <pthread.h>

#include <cerrno>

namespace trace {
namespace {

pthread_mutex_t turn = PTHREAD_MUTEX_INITIALIZER;

// A fault cannot wait, and a system call may be one to the process.
constexpr int kFaults[] = {SIGBUS, SIGFPE, SIGILL, SIGSEGV, SIGSYS, SIGTRAP};

}  // namespace

Unnoticed::Unnoticed() : error_(errno) {
  pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancel_state_);
  sigset_t held_back;
  sigfillset(&held_back);
  for (const int fault : kFaults) sigdelset(&held_back, fault);
  pthread_sigmask(SIG_BLOCK, &held_back, &signals_);
}

Unnoticed::~Unnoticed() {
  pthread_sigmask(SIG_SETMASK, &signals_, nullptr);
  pthread_setcancelstate(cancel_state_, &cancel_state_);
  errno = error_;
}

Turn::Turn() { pthread_mutex_lock(&turn); }

Turn::~Turn() { pthread_mutex_unlock(&turn); }

void restart_turns() { pthread_mutex_init(&turn, nullptr); }

}  // namespace trace
