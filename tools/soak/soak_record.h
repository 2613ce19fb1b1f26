// The stream of the soak: records of every message type with random content, which both ends draw alike.
//
// The stream consists of rounds. A round is a mark and one record of every message type, in the order of
// describe::types(). A last mark, in the place of the next round's, ends the stream. All these are the messages 1, 2, 3,
// ... of the stream.
//
// The content of a record follows from the seed of the stream, the number of the round and the message ID, so nothing
// needs to be sent along with it: the receiver draws the record again and compares.
//
// A mark is a fib6Sync_svcCtxMsg too:
//   f0.f0         kind of mark
//   f0.f1         number of the round, from 1
//   f1[0]         seed
//   f1[1] .. [7]  drawn from these, so that neither a random record nor a spoiled mark passes for one
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "channel.h"
#include "describe/type.h"
#include "fib6Sync.h"

namespace soak {

using drix::describe::Type;

inline constexpr char kDefaultEndpoint[] = "fib6_soak";

struct Round {
  uint32_t seed;
  uint32_t number;
};

// Draws the round's record of a type and sends it.
void send(Channel &channel, const Type &type, Round round);

// Compares a received record with the round's: the first member that differs, such as "f1[2].f7", or empty.
std::string first_difference(const Type &type, Round round, const void *received);

struct Mark {
  Round round;
  bool end;
};

inline constexpr uint32_t kMarkMessageId = drix_message_id("fib6Sync.svcCtxMsg");

fib6Sync_svcCtxMsg make_mark(const Mark &mark);
std::optional<Mark> read_mark(const fib6Sync_svcCtxMsg &message);  // none when it is a record of the round

}  // namespace soak
