// The send operations: encode records and hand them to the bus in one call.
#pragma once

#include <cstdint>

#include "runtime/encode.h"

namespace drix {

// One send operation each, see drix_message.h. destination 0 is the handle's default one.
int32_t send_single(const Encoder &encoder, uint32_t handle, const void *record, uint32_t destination);
int32_t send_batch(const Encoder &encoder, uint32_t handle, const void *records, uint32_t count, uint32_t destination);
int32_t send(const Encoder &encoder, uint32_t handle, const void *records, uint32_t count, uint32_t destination);

}  // namespace drix
