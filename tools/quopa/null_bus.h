// A bus that goes nowhere: quopa has the library's code inside, and what that sends is kept.
#pragma once

#include <cstdint>
#include <vector>

namespace quopa {

// The message that was sent last. Bytes that its layout leaves unwritten have any value.
std::vector<uint8_t> &last_sent();

}  // namespace quopa
