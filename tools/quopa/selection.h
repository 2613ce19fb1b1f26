// Which messages of a trace are wanted.
#pragma once

#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "inspect/where.h"
#include "tools/quopa/command.h"
#include "tools/quopa/look.h"
#include "tools/quopa/moment.h"
#include "tools/quopa/packet_term.h"
#include "tools/quopa/styles.h"

namespace quopa {

class Selection {
 public:
  explicit Selection(const SelectionOptions &options);  // throws BadUsage

  // Whether a message, which is no note, is wanted.
  bool takes(Look &look, Styles &styles);

  // Throws BadUsage when a condition cannot be fulfilled by any type that this version or the trace knows, and complains
  // of one that cannot by any type that there were messages of.
  void expect_fitting(Styles &styles);

 private:
  bool takes_time(uint64_t time);
  bool takes_type(const Look &look);
  bool matches(const std::string &type_name);

  bool sent_;
  bool received_;
  bool rejected_;
  bool failed_;
  std::optional<Moment> from_;
  std::optional<Moment> to_;
  std::optional<uint64_t> start_;  // of the capture, the time of its first message
  uint64_t first_ = 0;             // times that are wanted
  uint64_t last_ = UINT64_MAX;
  std::vector<std::string> globs_;
  std::vector<bool> matched_;  // for each of them, whether there was such a type
  std::vector<PacketTerm> packet_terms_;
  drix::inspect::Where where_;
  std::unordered_map<const drix::describe::Type *, bool> known_;  // whether the type is wanted
};

}  // namespace quopa
