// The part of the dissector that is the same for all types: dissector.lua.
#pragma once

namespace quopa {

extern const char *const kDissectorScript;

}  // namespace quopa
