// How the commands tell that a buffer is not accepted.
#pragma once

#include "inspect/walk.h"
#include "tools/quopa/packet.h"

namespace quopa {

// Prints the decoder's own log line, if there is one, and position and reason to standard error. Returns the exit
// status.
int report(const drix::inspect::Verdict &verdict, const Subject &subject);

}  // namespace quopa
