// How the commands tell that a buffer is not accepted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "inspect/walk.h"

namespace quopa {

// Prints the decoder's own log line, if there is one, and position and reason to standard error. Returns the exit
// status.
int report(const drix::inspect::Verdict &verdict, const drix::describe::Type &type, const std::vector<uint8_t> &buffer,
           const std::string &path);

}  // namespace quopa
