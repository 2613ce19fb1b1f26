// What the library's own decoder logs about a buffer.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "describe/type.h"

namespace quopa {

// Empty when it accepts the buffer or gives it up silently, and where a trace's older version has the type.
std::string decoder_log(const drix::describe::Type &type, const std::vector<uint8_t> &buffer);

}  // namespace quopa
