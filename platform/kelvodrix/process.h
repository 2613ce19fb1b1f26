// What a process has once.
#ifndef KELVODRIX_PROCESS_H
#define KELVODRIX_PROCESS_H

#include <mutex>

namespace kelvodrix {

// Guards channels, destinations, hooks, decoders and subscriptions. Never held while anything waits; held while the
// process forks, so that a child finds them whole and the lock open.
extern std::mutex process_mutex;

}  // namespace kelvodrix

#endif
