#include "tools/quopa/verdict.h"

#include <iostream>

#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/decoder_log.h"
#include "tools/quopa/input.h"

namespace quopa {

int report(const drix::inspect::Verdict &verdict, const drix::describe::Type &type, const std::vector<uint8_t> &buffer,
           const std::string &path) {
  if (verdict.accepted()) return kGood;
  std::cout.flush();
  const std::string log = decoder_log(type, buffer);
  if (!log.empty()) std::cerr << log << '\n';
  complain(name_of(path) + ": rejected at " + std::to_string(verdict.culprit.at) + ": " + explain(verdict) +
           (verdict.logged() ? "" : " (not logged)"));
  return kBad;
}

}  // namespace quopa
