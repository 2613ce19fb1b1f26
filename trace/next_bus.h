// The bus's own functions, behind those of the recorder.
#pragma once

namespace trace {

// The function of this name that the calling code would have got without the recorder; null when there is none. caller
// is an address in that code.
void *find_next(const char *name, const void *caller);

// Whether another copy of the recorder comes behind this one.
bool has_another_copy();

}  // namespace trace
