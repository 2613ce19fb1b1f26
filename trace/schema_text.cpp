#include "trace/schema_text.h"

#include "capture/format.h"

namespace trace {

const char kSchemaNote[] = TRACE_NOTE_SCHEMA
#include "schema_lines.h"  // made by trace_schema
    ;
const uint32_t kSchemaNoteLength = sizeof kSchemaNote - 1;

}  // namespace trace
