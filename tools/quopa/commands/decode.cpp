// quopa decode: a buffer as JSON.
#include <iostream>

#include "inspect/json.h"
#include "tools/quopa/command.h"
#include "tools/quopa/packet.h"
#include "tools/quopa/verdict.h"

namespace quopa {

int decode(const DecodeOptions &options) {
  const Subject subject = read_subject(options.type, options.file, options.hex, options.labels, options.ipv6);
  const std::vector<uint8_t> &buffer = subject.bytes;
  drix::inspect::RecordBuilder builder(*subject.type, buffer.data());
  const drix::inspect::Verdict verdict =
      drix::inspect::walk(*subject.type, buffer.data(), static_cast<uint32_t>(buffer.size()), &builder);
  write_json(std::cout, *subject.type, builder.record().data(), subject.style, verdict.accepted() ? nullptr : &verdict);
  std::cout << '\n';
  return report(verdict, subject);
}

}  // namespace quopa
