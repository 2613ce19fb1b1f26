#include "tools/quopa/verdict.h"

#include <iostream>

#include "describe/printable.h"
#include "tools/quopa/command.h"
#include "tools/quopa/decoder_log.h"
#include "tools/quopa/input.h"

namespace quopa {

int report(const drix::inspect::Verdict &verdict, const drix::describe::Type &type, const std::vector<uint8_t> &buffer,
           const std::string &path) {
  if (verdict.accepted()) return kGood;
  std::cout.flush();
  const std::string log = decoder_log(type, buffer);
  if (!log.empty()) std::cerr << log << '\n';
  std::cerr << "quopa: " << drix::describe::printable(name_of(path)) << ": rejected at " << verdict.culprit.at << ": "
            << explain(verdict) << (verdict.logged() ? "\n" : " (not logged)\n");
  return kBad;
}

}  // namespace quopa
