// A bus that takes every message at once, and gives away the decoder that was registered last.
#include "drix_bus.h"

DrixDecodeFunc last_decoder() __attribute__((visibility("default")));

namespace {
DrixDecodeFunc registered = nullptr;
}

DrixDecodeFunc last_decoder() { return registered; }

int32_t DRIX_SendMsg(uint32_t, DrixSendDescriptor *, uint32_t) { return 0; }
int32_t DRIX_SendToMsg(uint32_t, DrixSendDescriptor *, uint32_t, uint32_t) { return 0; }
int32_t DRIX_RegIDLFuncHook(uint32_t, DrixDecodeFunc decode, DrixReleaseFunc) {
  registered = decode;
  return 0;
}
int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc) { return 0; }
