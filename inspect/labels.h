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
//
// A file also says which tables messages keep: of which records, and by which members their entries are told apart.
//
//   [fib6Sync.ipv6FwdUpdateMsg]
//   adds f1                      # or changes; behind it vectors and tables that belong to the entry, as in: adds f1 f2
//   [fib6Sync.ipv6FwdDelMsg]
//   deletes f1                   # a record like those added, or a key of them
//   [fib6Sync.ipv6FwdKey]
//   key of fib6Sync.ipv6Fwd f2=f3 f3=f4 f0=f0 f1=f1
//   [fib6Sync.ipv6Fwd]
//   key f3 f4                    # where not all that keys have tells entries apart, or where there is no such type
//   apart f6 f13                 # such as a number that each message has: no part of the entry
//
// Entries are sorted in the order in which the members of the key are given. Without members, adds and deletes are of
// messages that are records or keys themselves. For the types that have keys Labels::kTables says all of this; what a
// file says of a type takes the place of that.
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

// What a type has to do with a table. Members are given by their slots.
struct Role {
  enum class Part : uint8_t { adds, deletes, key_of, key, apart };

  Part part;
  std::vector<std::size_t> members;
  const describe::Type *record = nullptr;        // of key_of: whose key it is
  std::vector<std::size_t> record_members = {};  // likewise: what its members are called there
};

// Of text that is no label file.
struct LabelError : std::runtime_error {
  LabelError(std::size_t in_line, const std::string &what) : std::runtime_error(what), line(in_line) {}
  std::size_t line;  // from 1
};

class Labels {
 public:
  // What is known without a file.
  static const char *const kTables;

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

  using Roles = std::map<const describe::Type *, Role>;

  // Of messages that add or delete, of what has or is a key, and of records with members apart. Of types of this version.
  const Roles &tellers() const { return tellers_; }
  const Roles &keys() const { return keys_; }
  const Roles &apart() const { return apart_; }

 private:
  void parse_member(const describe::Type &type, std::string_view line);
  void parse_role(const describe::Type &type, std::string_view line);
  std::size_t member(const describe::Type &type, std::string_view name) const;

  std::map<const describe::Type *, std::vector<std::shared_ptr<const Label>>> types_;  // by slot, null: no label
  Roles tellers_;
  Roles keys_;
  Roles apart_;
};

}  // namespace drix::inspect
