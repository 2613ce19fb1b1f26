// What a user's file says about members, to which the library gives no meaning: names, addresses, enumerations, flags.
// Labels change how values are shown and written, never what there is.
//
//   # a comment
//   [fib6Sync.ipv6Fwd]
//   f1 = metric
//   f2 = flags flags U=0x1 G=0x2
//   f3 = destination ipv6
//   f5 = origin enum static=1 learned=2
//
// A section labels the members of a type wherever it occurs, embedded and in vectors too. ipv6 is for u32[4], most
// significant word first; enum and flags are for scalars. A value that has no word, or a bit that has no letter, leaves
// the number as it is.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "describe/suggestion.h"
#include "describe/type.h"

namespace drix::inspect {

struct Label {
  std::string name;
  bool ipv6 = false;
  bool is_flags = false;                                  // or an enumeration
  std::vector<std::pair<std::string, uint32_t>> meaning;  // words or letters with their values, in the file's order
  std::unordered_map<std::string, uint32_t> values;       // of the same words or letters
  std::unordered_map<uint32_t, std::size_t> indices;      // of values in meaning

  // The word or letters for a value, if it has them all; and the inverse.
  std::optional<std::string> text_of(uint32_t value) const;
  std::optional<uint32_t> value_of(const std::string &text) const;
};

// Of text that is no label file.
struct LabelError : std::runtime_error {
  LabelError(std::size_t in_line, const std::string &what) : std::runtime_error(what), line(in_line) {}
  std::size_t line;  // from 1
};

class Labels {
 public:
  Labels() = default;
  explicit Labels(std::string_view file);  // throws LabelError

  // For types of another version: of members that are there in both, and of the same kind.
  Labels carried_over(std::span<const describe::Type *const> types) const;

  // Null when the member has none.
  const Label *find(const describe::Type &type, std::size_t slot) const;

  // The member's name: its label's or f<I>.
  std::string name(const describe::Type &type, std::size_t slot) const;

  // By either name; no value when there is no such member.
  std::optional<std::size_t> slot(const describe::Type &type, std::string_view name) const;

  // For a name that is none: that the type has no such member, and what may be meant; and only the latter.
  std::string no_member(const describe::Type &type, std::string_view name) const;
  describe::Suggestion suggestion(const describe::Type &type, std::string_view name) const;

 private:
  void parse_member(const describe::Type &type, std::string_view line);

  std::map<const describe::Type *, std::vector<std::shared_ptr<const Label>>> types_;  // by slot, null: no label
};

}  // namespace drix::inspect
