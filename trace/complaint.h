// What the recorder has to say to whoever started the process.
#pragma once

namespace trace {

// To be called first: what standard error is when the process starts. A process that puts something else in its place
// is told nothing any more, for it may be data.
void find_standard_error();

// Writes one line to standard error: "quopa_trace: SUBJECT: REASON; CONSEQUENCE". error is an errno value that gives
// the reason; without a reason (0) and its colon. Neither ends the process nor waits, even if nobody reads standard
// error.
void complain(const char *subject, int error, const char *consequence);

}  // namespace trace
