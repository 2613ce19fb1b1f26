// A bus that keeps what it is given and answers what it is told to.
#pragma once

#include <cstdint>
#include <optional>
#include <vector>

#include "drix_bus.h"

namespace fake_bus {

struct Message {
  uint32_t id;
  const uint8_t *address;
  std::vector<uint8_t> bytes;
};

struct Call {
  uint32_t handle;
  std::optional<uint32_t> destination;  // none: the default one
  std::vector<Message> messages;
};

struct Registered {
  uint32_t id;
  DrixDecodeFunc decode;
  DrixReleaseFunc release;
};

struct Bus {
  int32_t status = 0;  // of every send and of the hook's registration
  std::size_t refused_registration = SIZE_MAX;
  int32_t refusal = 0;
  bool quiet = false;  // only count calls, without touching the heap
  std::size_t quiet_calls = 0;
  std::vector<Call> calls = {};
  std::vector<Registered> registered = {};  // refused ones included
  DrixResourceCleanFunc hook = nullptr;
};

Bus &bus();

}  // namespace fake_bus
