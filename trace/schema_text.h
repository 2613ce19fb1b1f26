// The schema of all message types as the library has them when the recorder is built, as the note that carries it.
#pragma once

#include <cstdint>

namespace trace {

extern const char kSchemaNote[];  // TRACE_NOTE_SCHEMA and the text
extern const uint32_t kSchemaNoteLength;

}  // namespace trace
