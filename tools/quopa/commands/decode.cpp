// quopa decode: a buffer as JSON.
#include <iostream>

#include "inspect/json.h"
#include "tools/quopa/command.h"
#include "tools/quopa/input.h"
#include "tools/quopa/verdict.h"

namespace quopa {
int decode(const DecodeOptions &options) {
  const drix::describe::Type &type = find_type(options.type);
  const drix::inspect::JsonStyle style = {read_labels(options.labels), options.ipv6};
  const std::vector<uint8_t> buffer = read_buffer(options.file, options.hex);
  drix::inspect::RecordBuilder builder(type, buffer.data());
  const drix::inspect::Verdict verdict =
      drix::inspect::walk(type, buffer.data(), static_cast<uint32_t>(buffer.size()), &builder);
  write_json(std::cout, type, builder.record().data(), style, verdict.accepted() ? nullptr : &verdict);
  std::cout << '\n';
  return report(verdict, type, buffer, options.file);
}

}  // namespace quopa
