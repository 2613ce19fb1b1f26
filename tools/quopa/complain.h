// What the commands have to say beside their output.
#pragma once

#include <string>

namespace quopa {

// Writes "quopa: " and a line to standard error, behind what stands on standard output by then.
void complain(const std::string &what);

}  // namespace quopa
