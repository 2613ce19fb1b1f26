// Conditions on what records hold: f1.f3=2001:db8::/32, route.metric>=10.
//
// A member is named by f<I> or by its label. In an array or a vector any element may fulfil the condition, of several
// conditions each another one. A value is
//   for scalars                a number, decimal or 0x hexadecimal, or a word or letters that a label has
//   for u32[4]                 an IPv6 address, or with = and != a prefix that contains it; a number for any element
//   for other arrays of u32    a number, for any element
//   for u8[N], byte strings    pairs of hexadecimal digits, compared from the left
// and the comparison = != < <= > or >=.
#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "inspect/extent.h"
#include "inspect/labels.h"

namespace drix::inspect {

// Of text that is no condition, or of one that fits no type.
struct WhereError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Where {
 public:
  explicit Where(const std::string &term);  // throws WhereError

  // Whether a record fulfils it, as far as it was decoded. A type without the member does not.
  bool holds(const describe::Type &type, const uint8_t *record, const Extent &extent, const Labels &labels);

  // Whether the condition can be asked of the type: it has the member, and the value is one for it.
  bool fits(const describe::Type &type, const Labels &labels) { return resolve(type, labels).has_value(); }

  // Throws unless it fitted one of the types so far.
  void expect_fitting() const;

 private:
  enum class Comparison : uint8_t { equal, unequal, less, at_most, more, at_least };

  // The condition for one type.
  struct Resolved {
    uint32_t outer;  // slot of the root; TablePath::kNone: the member is the root's
    std::size_t slot;
    uint32_t number;             // for scalars, and each element of an array
    std::vector<uint8_t> bytes;  // for u8[N] and byte strings
    bool is_number;
  };

  // An address in network order, of which so many bits are compared.
  struct Prefix {
    uint8_t address[16];
    uint32_t bits;
  };

  const std::optional<Resolved> &resolve(const describe::Type &type, const Labels &labels);
  Resolved resolve_anew(const describe::Type &type, const Labels &labels) const;
  void read_value(const describe::SlotInfo &slot, const Label *label, Resolved &resolved) const;
  Prefix read_prefix() const;
  bool member_holds(const Resolved &resolved, const describe::SlotInfo &slot, const uint8_t *table) const;
  bool compares(int order) const;

  std::string term_;
  std::string path_;
  std::string value_;
  Comparison comparison_ = Comparison::equal;
  std::optional<Prefix> prefix_;  // where the value is an address or a prefix
  std::unordered_map<const describe::Type *, std::optional<Resolved>> resolved_;
  bool fitted_ = false;
  std::string misfit_;  // why it did not
};

}  // namespace drix::inspect
