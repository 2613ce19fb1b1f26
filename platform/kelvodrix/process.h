// What a process has once.
#ifndef KELVODRIX_PROCESS_H
#define KELVODRIX_PROCESS_H

#include <pthread.h>
#include <signal.h>

#include <mutex>

namespace kelvodrix {

// Guards channels, destinations, hooks, decoders and subscriptions. Never held while anything waits; held while the
// process forks, so that a child finds them whole and the lock open.
extern std::mutex process_mutex;

// Threads that are made meanwhile take no signals: these are for the process's own.
class SignalsHeldBack {
 public:
  SignalsHeldBack() {
    sigset_t every;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &former_);
  }
  ~SignalsHeldBack() { pthread_sigmask(SIG_SETMASK, &former_, nullptr); }
  SignalsHeldBack(const SignalsHeldBack &) = delete;
  SignalsHeldBack &operator=(const SignalsHeldBack &) = delete;

 private:
  sigset_t former_;
};

}  // namespace kelvodrix

#endif
