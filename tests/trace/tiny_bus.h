// A bus of another make than the stand-in: it answers minus the handle, leaves its own errno, tries every decoder out
// while it is registered, and makes one send function with the other.
#pragma once

#include <cstdint>

constexpr int kBusErrno = 77;

// Gives a buffer to the decoder with this ID; returns what it returns.
__attribute__((visibility("default"))) uint32_t deliver(uint32_t id, const uint8_t *buffer, uint32_t length);
