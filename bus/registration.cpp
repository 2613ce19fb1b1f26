#include "bus/registration.h"

namespace drix {

int32_t register_messages(std::span<const Registration> messages) {
  for (const Registration &message : messages) {
    const int32_t status = DRIX_RegIDLFuncHook(message.id, message.decode, message.release);
    if (status != 0) return status;
  }
  return 0;
}

}  // namespace drix
