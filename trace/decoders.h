// Decoders that record what they are given before they pass it on.
#pragma once

#include <cstdint>

#include "drix_bus.h"

namespace trace {

// What to register in the place of a decoder: a function of its own for each ID and decoder, because the bus does not
// tell a decoder the ID. The decoder itself where nothing is to be recorded, and when the functions are used up, which
// is recorded.
DrixDecodeFunc wrap_decoder(uint32_t id, DrixDecodeFunc decode);

}  // namespace trace
