// The folder of the trace and the names in it.
//
// It stays open from the start of the process, so that it is found out of a chroot and when it has been moved.
#pragma once

#include <cstdint>

namespace trace {

// The folder, to be used at once: the process may close any descriptor and use its number for something else. Opens it
// again when that has happened. -1 with errno when it cannot be opened. Not for several threads at a time.
int open_folder();

struct Name {
  char text[128];
};

Name file_name(uint32_t number);  // of a file of this process

// A new one, which no reader takes for a trace.
Name hidden_name();

}  // namespace trace
