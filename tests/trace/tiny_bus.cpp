#include "tiny_bus.h"

#include <cerrno>
#include <unordered_map>
#include <utility>

#include "drix_bus.h"

static std::unordered_map<uint32_t, DrixDecodeFunc> decoders;
static thread_local int found = 0;
static thread_local void (*in_send)() = nullptr;

uint32_t deliver(uint32_t id, const uint8_t *buffer, uint32_t length) {
  uint8_t record[64];
  return decoders.at(id)(buffer, length, record);
}

int errno_found() { return found; }

void call_in_send(void (*function)()) { in_send = function; }

int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *, uint32_t) {
  found = errno;
  if (in_send != nullptr) std::exchange(in_send, nullptr)();
  errno = kBusErrno;
  return -static_cast<int32_t>(handle);
}

int32_t DRIX_SendToMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count, uint32_t) {
  return DRIX_SendMsg(handle, descriptors, count);
}

int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc) {
  decoders[id] = decode;
  uint8_t record[64];
  const uint8_t probe[4] = {};
  decode(probe, sizeof probe, record);
  errno = kBusErrno;
  return static_cast<int32_t>(id % 5);
}

int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc) { return 0; }
