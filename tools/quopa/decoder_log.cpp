#include "tools/quopa/decoder_log.h"

#include <cstdarg>
#include <cstdio>

#include "inspect/record.h"
#include "runtime/services.h"

namespace quopa {
namespace {

std::string line;

}  // namespace

std::string decoder_log(const drix::describe::Type &type, const std::vector<uint8_t> &buffer) {
  if (type.library.unpack == nullptr) return {};
  drix::inspect::Record record(type);
  const uint8_t none = 0;  // so that an empty buffer has an address too
  line.clear();
  type.library.unpack(buffer.empty() ? &none : buffer.data(), static_cast<uint32_t>(buffer.size()), record.data());
  type.library.free_unpacked(record.data());
  return line;
}

}  // namespace quopa

// The library finds the platform's log writer by name; here it is this one.
extern "C" __attribute__((visibility("default"))) void PXR_OsalLogWrite(const drix::LogModule *, uint32_t,
                                                                        uint32_t code, const char *, uint32_t,
                                                                        const char *function, const char *format, ...) {
  char text[256];
  va_list arguments;
  va_start(arguments, format);
  std::vsnprintf(text, sizeof text, format, arguments);
  va_end(arguments);
  quopa::line = std::string(text) + " (" + function + ", code " + std::to_string(code) + ')';
}
