#include "bus/registration.h"

namespace drix {

int32_t register_messages(const Registration *messages, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    const int32_t status = DRIX_RegIDLFuncHook(messages[i].id, messages[i].decode, messages[i].release);
    if (status != 0) return status;
  }
  return 0;
}

}  // namespace drix
