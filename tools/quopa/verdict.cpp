#include "tools/quopa/verdict.h"

#include <iostream>

#include "tools/quopa/command.h"
#include "tools/quopa/complain.h"
#include "tools/quopa/decoder_log.h"

namespace quopa {

int report(const drix::inspect::Verdict &verdict, const Subject &subject) {
  if (verdict.accepted()) return kGood;
  std::cout.flush();
  const std::string log = decoder_log(*subject.type, subject.bytes);
  if (!log.empty()) std::cerr << log << '\n';
  complain(subject.name + ": rejected at " + std::to_string(verdict.culprit.at) + ": " + explain(verdict) +
           (verdict.logged() ? "" : " (not logged)"));
  return kBad;
}

}  // namespace quopa
