// Stands between a sender and the bus and spoils the message with the index SPOIL_AT in the way that SPOIL names.
#include <dlfcn.h>

#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "drix_bus.h"

int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count) {
  static const auto bus = reinterpret_cast<decltype(&DRIX_SendMsg)>(dlsym(RTLD_NEXT, "DRIX_SendMsg"));
  static const std::string spoil = std::getenv("SPOIL");
  static const unsigned long spoil_at = std::strtoul(std::getenv("SPOIL_AT"), nullptr, 10);
  static unsigned long sent = 0;

  std::vector<DrixSendDescriptor> messages(descriptors, descriptors + count);
  if (spoil_at >= sent && spoil_at - sent < count) {
    const auto spoiled = messages.begin() + static_cast<std::ptrdiff_t>(spoil_at - sent);
    if (spoil == "drop") {
      messages.erase(spoiled);
    } else if (spoil == "repeat") {
      messages.insert(spoiled, *spoiled);
    } else if (spoil == "swap") {
      std::swap(*spoiled, *(spoiled + 1));
    } else if (spoil == "alter") {
      reinterpret_cast<uint8_t *>(spoiled->address)[60] ^= 1;  // in the destination prefix
    } else if (spoil == "truncate") {
      spoiled->length = 16;
    }
  }
  sent += count;
  return bus(handle, messages.data(), static_cast<uint32_t>(messages.size()));
}
