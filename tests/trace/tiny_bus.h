// A bus of another make than the stand-in: it answers minus the handle, leaves its own errno, tries every decoder out
// while it is registered, and makes one send function with the other.
#pragma once

#include <cstdint>

constexpr int kBusErrno = 77;

#define TINY_BUS_EXPORT __attribute__((visibility("default")))

// Gives a buffer to the decoder with this ID; returns what it returns.
TINY_BUS_EXPORT uint32_t deliver(uint32_t id, const uint8_t *buffer, uint32_t length);

// What errno was when this thread called the bus to send.
TINY_BUS_EXPORT int errno_found();

// The next send calls this once, before it returns, if it does.
TINY_BUS_EXPORT void call_in_send(void (*function)());
