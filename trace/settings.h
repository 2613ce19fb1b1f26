// What the environment says about the trace. Read once, when the process starts.
//
//   QUOPA_TRACE_DIR    folder of the files; without it nothing is recorded
//   QUOPA_TRACE_SIZE   bytes that they may take altogether, with suffix K, M or G; 64M
//   QUOPA_TRACE_TYPES  patterns of package.message, separated by commas, of the messages to record; all
#pragma once

#include <climits>
#include <cstdint>

namespace trace {

struct Settings {
  char folder[PATH_MAX];  // absolute; empty: nothing is recorded
  uint64_t ring_bytes;
  char program[64];  // the program's name, of characters that do in any file name
};

// Complains about values that are none and takes the defaults for them. A folder that cannot be used is found out when
// it is.
void read_settings();

const Settings &settings();

// Whether messages with this ID are to be recorded.
bool is_selected(uint32_t id);

}  // namespace trace
