// A bus that takes every message and registration at once.
#include "drix_bus.h"

int32_t DRIX_SendMsg(uint32_t, DrixSendDescriptor *, uint32_t) { return 0; }
int32_t DRIX_SendToMsg(uint32_t, DrixSendDescriptor *, uint32_t, uint32_t) { return 0; }
int32_t DRIX_RegIDLFuncHook(uint32_t, DrixDecodeFunc, DrixReleaseFunc) { return 0; }
int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc) { return 0; }
