// Conditions on what records hold: f1.f3=2001:db8::/32, route.metric>=10.
//
// A member is named by f<I> or by its label. In an array or a vector any element may fulfil the condition; of several
// conditions on the elements of one vector, one element has to fulfil all, unless each is wanted of any. A value is
//   for scalars                a number, decimal or 0x hexadecimal, or a word or letters that a label has
//   for u32[4]                 an IPv6 address, or with = and != a prefix that contains it; a number for any element
//   for other arrays of u32    a number, for any element
//   for u8[N], byte strings    pairs of hexadecimal digits, compared from the left
// and the comparison = != < <= > or >=.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
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

enum class Comparison : uint8_t { equal, unequal, less, at_most, more, at_least };

// Whether what is less than, equal to or more than something, as memcmp() says it, compares so.
bool compares(Comparison comparison, int order);

// What stands on both sides of a comparison.
struct Term {
  explicit Term(const std::string &term);  // throws WhereError

  std::string text;
  std::string path;
  std::string value;
  Comparison comparison = Comparison::equal;
};

// One condition.
class Condition {
 public:
  // The condition for one type.
  struct Resolved {
    uint32_t outer;  // slot of the root; TablePath::kNone: the member is the root's
    std::size_t slot;
    uint32_t number;             // for scalars, and each element of an array
    std::vector<uint8_t> bytes;  // for u8[N] and byte strings
    bool is_number;
  };

  explicit Condition(Term term);  // throws WhereError

  // No value when the type has no such member, or the value is none for it.
  const std::optional<Resolved> &resolve(const describe::Type &type, const Labels &labels);

  bool holds(const Resolved &resolved, const describe::SlotInfo &slot, const uint8_t *table) const;

  bool has_fitted() const { return fitted_; }
  const std::string &misfit() const { return misfit_; }  // why it did not; empty when no type was asked

  // A member that the condition may mean, of a type of those asked: "f1.f3" of fib6Sync.ipv6FwdUpdateMsg.
  std::string alternative(const Labels &labels) const;

 private:
  // An address in network order, of which so many bits are compared.
  struct Prefix {
    uint8_t address[16];
    uint32_t bits;
  };

  Resolved resolve_anew(const describe::Type &type, const std::string &path, const Labels &labels) const;
  void read_value(const describe::SlotInfo &slot, const Label *label, Resolved &resolved) const;
  Prefix read_prefix() const;
  void take_misfit(const describe::Type &type, const Labels &labels, const std::string &why);

  Term term_;
  std::optional<Prefix> prefix_;  // where the value is an address or a prefix
  std::unordered_map<const describe::Type *, std::optional<Resolved>> resolved_;
  bool fitted_ = false;
  std::string misfit_;
  int misfit_rank_ = -1;  // what tells more counts
};

// Several conditions, all of which have to hold.
class Where {
 public:
  // A member that fulfils one.
  struct Match {
    TablePath path;
    std::size_t slot;
    const uint8_t *table;
  };

  Where() = default;
  Where(const Where &) = delete;
  Where &operator=(const Where &) = delete;
  explicit Where(const std::string &term) { add(Term(term)); }  // throws WhereError, as add()
  void add(Term term) { conditions_.emplace_back(std::move(term)); }

  // Each condition may hold in another element of a vector.
  void allow_any_element() { any_element_ = true; }

  bool is_empty() const { return conditions_.empty(); }

  // Whether a record fulfils them, as far as it was decoded. A type without the members does not. Of a record that
  // does, adds what fulfils them.
  bool holds(const describe::Type &type, const uint8_t *record, const Extent &extent, const Labels &labels,
             std::vector<Match> *matches = nullptr);

  // Whether the conditions can be asked of the type: it has the members, and the values are some for them.
  bool fits(const describe::Type &type, const Labels &labels);

  // Of conditions that fitted none of the types so far, if there were some, why, and what may be meant: a line each.
  std::vector<std::string> misfits(const Labels &labels) const;

  // Throws unless each of the conditions fitted one of the types so far.
  void expect_fitting() const;

 private:
  // Conditions on members that stand in the same table.
  using Group = std::vector<std::pair<const Condition *, const Condition::Resolved *>>;

  // What is known of a type: empty, and not fitting, or the conditions in groups.
  struct Known {
    bool fits = true;
    std::vector<Group> groups;
  };

  const Known &known(const describe::Type &type, const Labels &labels);
  static bool group_holds(const Group &group, const describe::Type &type, const uint8_t *record, const Extent &extent,
                          std::vector<Match> *matches);

  std::vector<Condition> conditions_;
  bool any_element_ = false;
  std::unordered_map<const describe::Type *, Known> types_;
};

}  // namespace drix::inspect
