// What processes to be traced are made of. What they send and deliver holds a stream's number, the number in that
// stream, and bytes that follow from it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "drix_bus.h"
#include "tiny_bus.h"

constexpr uint32_t kId = 0x48CDB5CB;       // of fib6Sync.ipv6FwdUpdateMsg
constexpr uint32_t kOtherId = 0xE679B47A;  // of fib6Sync.balanceModeData
constexpr uint32_t kDecoded = 23;
constexpr uint32_t kFileHolds = 470;  // a little more messages than a file of the smallest ring does

void require(bool condition, const char *file, int line);
#define REQUIRE(condition) require(condition, __FILE__, __LINE__)

void fill_payload(uint8_t *bytes, std::size_t length, uint32_t stream, uint32_t number);

// They fail when they do not get from the bus what the bus gives, or the bus not what they give.
void send(uint32_t id, uint32_t handle, uint32_t stream, uint32_t first, uint32_t count, std::size_t length,
          uint32_t destination = 0);
void send_one(uint32_t stream, uint32_t number, uint32_t id = kId);  // as a signal handler may, too
void receive(uint32_t id, uint32_t stream, uint32_t number, std::size_t length);
void register_decoder(uint32_t id);

// Sends so many messages of stream 1, of all sizes, in calls of all sizes.
void send_many(uint32_t messages);

// Sends messages of stream 1 that cannot be read before the handler of the fault has called in_fault: whatever that
// does comes in the middle of their recording.
void send_faulting(uint32_t stream, uint32_t number, uint32_t count);
extern void (*in_fault)();

// Called once when the recorder gives a file its name, which it does while other threads wait for it.
extern void (*in_turn)();

using Scenario = void(uint32_t);

// What is recorded.
Scenario calls, odd, many, decoders, deleted, load;

// Calls that take long or are left: traced_left.cpp.
Scenario held, slow_decoders, left_decoders, left_sends;

// Children: traced_children.cpp.
Scenario children, fork_in_decoder, fork_in_thread, interrupted_child, turning_child, unknown_child,
    unknown_child_in_send;

// What must not show: traced_process.cpp.
Scenario cancelled, closed, moved, no_more_room, redirected, signalled, small_stack;
