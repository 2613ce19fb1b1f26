// The bus's functions as a process finds them that was started with the recorder. Each call passes on to the bus, with
// the bus's result and errno. The function that registers a hook to clean up after sending is left alone: no message
// passes through it.
#include <pthread.h>

#include <atomic>

#include "drix_bus.h"
#include "trace/decoders.h"
#include "trace/next_bus.h"
#include "trace/recorder.h"
#include "trace/thread.h"

#define TRACE_EXPORT __attribute__((visibility("default")))

namespace {

using trace::this_thread;

constexpr int32_t kFailure = -1;

bool recording = false;  // set when the process starts

[[gnu::constructor]] void start() {
  // The last of several copies records: what it sees is what the bus gets.
  recording = !trace::has_another_copy() && trace::start_recorder();
  if (recording) pthread_atfork(nullptr, nullptr, trace::restart_recorder);
}

[[gnu::destructor]] void stop() {
  if (recording) trace::stop_recorder();
}

// A function of the bus, looked for at its first call: a bus may be loaded later than the recorder.
template <class Function>
class Next {
 public:
  constexpr explicit Next(const char *name) : name_(name) {}

  Function *get(const void *caller) {
    Function *function = function_.load(std::memory_order_acquire);
    if (function == nullptr) {
      function = reinterpret_cast<Function *>(trace::find_next(name_, caller));
      function_.store(function, std::memory_order_release);
    }
    return function;
  }

 private:
  const char *name_;
  std::atomic<Function *> function_{nullptr};
};

Next<decltype(DRIX_SendMsg)> next_send("DRIX_SendMsg");
Next<decltype(DRIX_SendToMsg)> next_send_to("DRIX_SendToMsg");
Next<decltype(DRIX_RegIDLFuncHook)> next_register("DRIX_RegIDLFuncHook");

// A stack grows down. The frames of calls from the same place differ by less than this, by more those of one call
// inside of another.
constexpr uintptr_t kSamePlace = 64;

// Records what send does. A bus may make one of its functions with the other: that is one call. But a call for the same
// messages that is no deeper in the stack comes after one that was left by a jump or an exception.
template <class Send>
int32_t send_recorded(uint32_t handle, uint32_t destination, DrixSendDescriptor *descriptors, uint32_t count,
                      Send send) {
  if (!recording || descriptors == nullptr || count == 0) return send();
  const auto frame = reinterpret_cast<uintptr_t>(__builtin_frame_address(0));
  const trace::SendCall outer = this_thread.send;
  const bool is_same = outer.messages == descriptors;
  if (is_same && frame + kSamePlace < outer.frame) return send();
  trace::SentMessages messages;
  messages.record(handle, destination, descriptors, count);
  this_thread.send = {descriptors, frame};
  const int32_t status = send();
  this_thread.send = is_same ? trace::SendCall{} : outer;
  messages.conclude(status);
  return status;
}

}  // namespace

TRACE_EXPORT int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count) {
  auto *const next = next_send.get(__builtin_return_address(0));
  if (next == nullptr) return kFailure;
  return send_recorded(handle, 0, descriptors, count, [=] { return next(handle, descriptors, count); });
}

TRACE_EXPORT int32_t DRIX_SendToMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count,
                                    uint32_t destination) {
  auto *const next = next_send_to.get(__builtin_return_address(0));
  if (next == nullptr) return kFailure;
  return send_recorded(handle, destination, descriptors, count,
                       [=] { return next(handle, descriptors, count, destination); });
}

TRACE_EXPORT int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc release) {
  auto *const next = next_register.get(__builtin_return_address(0));
  if (next == nullptr) return kFailure;
  if (!recording) return next(id, decode, release);
  trace::open_trace();
  return next(id, trace::wrap_decoder(id, decode), release);
}
