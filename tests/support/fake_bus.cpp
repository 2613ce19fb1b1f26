#include "fake_bus.h"

namespace fake_bus {

Bus &bus() {
  static Bus the_bus;
  return the_bus;
}

namespace {

int32_t record(uint32_t handle, const DrixSendDescriptor *descriptors, uint32_t count,
               std::optional<uint32_t> destination) {
  if (bus().quiet) {
    ++bus().quiet_calls;
    return bus().status;
  }
  Call call = {handle, destination, {}};
  for (uint32_t i = 0; i < count; ++i) {
    const auto *bytes = reinterpret_cast<const uint8_t *>(descriptors[i].address);
    call.messages.push_back({descriptors[i].id, bytes, {bytes, bytes + descriptors[i].length}});
  }
  bus().calls.push_back(call);
  return bus().status;
}

}  // namespace
}  // namespace fake_bus

#define BUS_FUNCTION __attribute__((visibility("default")))

BUS_FUNCTION int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count) {
  return fake_bus::record(handle, descriptors, count, std::nullopt);
}

BUS_FUNCTION int32_t DRIX_SendToMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count,
                                    uint32_t destination) {
  return fake_bus::record(handle, descriptors, count, destination);
}

BUS_FUNCTION int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc release) {
  auto &bus = fake_bus::bus();
  bus.registered.push_back({id, decode, release});
  return bus.registered.size() - 1 == bus.refused_registration ? bus.refusal : 0;
}

BUS_FUNCTION int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc hook) {
  fake_bus::bus().hook = hook;
  return fake_bus::bus().status;
}
