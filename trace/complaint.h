// What the recorder has to say to whoever started the process.
#pragma once

namespace trace {

// Writes one line to standard error: "quopa_trace: SUBJECT: REASON; CONSEQUENCE". error is an errno value that gives
// the reason; without a reason (0) and its colon. Never ends the process, even if nobody reads standard error.
void complain(const char *subject, int error, const char *consequence);

}  // namespace trace
