#include "tools/quopa/null_bus.h"

#include "drix_bus.h"

namespace quopa {

std::vector<uint8_t> &last_sent() {
  static std::vector<uint8_t> bytes;
  return bytes;
}

}  // namespace quopa

int32_t DRIX_SendMsg(uint32_t, DrixSendDescriptor *descriptors, uint32_t count) {
  const DrixSendDescriptor &last = descriptors[count - 1];
  const auto *const bytes = reinterpret_cast<const uint8_t *>(last.address);
  quopa::last_sent().assign(bytes, bytes + last.length);
  return 0;
}

int32_t DRIX_SendToMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count, uint32_t) {
  return DRIX_SendMsg(handle, descriptors, count);
}

int32_t DRIX_RegIDLFuncHook(uint32_t, DrixDecodeFunc, DrixReleaseFunc) { return 0; }

int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc) { return 0; }
