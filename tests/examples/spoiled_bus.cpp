// Stands between a sender and the bus and spoils one message in the way that SPOIL names: the one with the index
// SPOIL_AT, or the first of that name.
#include <dlfcn.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "drix_bus.h"
#include "drix_message.h"

int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count) {
  static const auto bus = reinterpret_cast<decltype(&DRIX_SendMsg)>(dlsym(RTLD_NEXT, "DRIX_SendMsg"));
  static const std::string spoil = std::getenv("SPOIL");
  static const std::string spoil_at = std::getenv("SPOIL_AT");
  static const bool by_index = spoil_at.find_first_not_of("0123456789") == std::string::npos;
  const uint32_t id = drix_message_id(spoil_at.c_str());
  static unsigned long index = by_index ? std::stoul(spoil_at) : 0;  // from the first of these messages on
  static bool done = false;

  std::vector<DrixSendDescriptor> messages(descriptors, descriptors + count);
  auto spoiled = messages.end();
  if (!by_index) {
    spoiled = std::find_if(messages.begin(), messages.end(), [id](const auto &message) { return message.id == id; });
  } else if (index < count) {
    spoiled = messages.begin() + static_cast<std::ptrdiff_t>(index);
  } else {
    index -= count;
  }
  if (spoiled != messages.end() && !done) {
    done = true;
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
  return bus(handle, messages.data(), static_cast<uint32_t>(messages.size()));
}
