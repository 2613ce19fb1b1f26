// Conditions on what a trace tells of a message beside its record: .size>100, .status=failed. The leading full stop
// tells them from members, whose names have none.
#pragma once

#include "capture/message.h"
#include "inspect/where.h"

namespace quopa {

//   .time                          see Moment
//   .program                       a pattern as for file names, with = and !=
//   .status                        ok, failed or unanswered, with = and !=; or a number
//   .process .thread .handle .destination .packet .size    a number; the size is that of the whole message in bytes
class PacketTerm {
 public:
  static bool is_one(const std::string &term) { return term.starts_with('.'); }
  static std::vector<std::string> names();

  explicit PacketTerm(const drix::inspect::Term &term);  // throws WhereError

  // In a capture that starts at a time.
  bool holds(const capture::Message &message, uint64_t start) const { return holds_(message, start); }

 private:
  std::function<bool(const capture::Message &, uint64_t start)> holds_;
};

}  // namespace quopa
