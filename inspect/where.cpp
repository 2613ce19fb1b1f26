#include "inspect/where.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <map>

#include "describe/printable.h"
#include "inspect/digits.h"
#include "runtime/wire.h"

namespace drix::inspect {
namespace {

using describe::quoted;
using describe::SlotInfo;
using describe::Type;

constexpr uint32_t kAddressBits = 128;

[[noreturn]] void refuse(const std::string &what) { throw WhereError(what); }

int sign(uint32_t a, uint32_t b) { return a < b ? -1 : a > b; }

// Compares the first bits of two byte strings.
int compare_bits(const uint8_t *a, const uint8_t *b, uint32_t bits) {
  const int order = std::memcmp(a, b, bits / 8);
  if (order != 0 || bits % 8 == 0) return order;
  const auto mask = static_cast<uint8_t>(0xFF00u >> bits % 8);
  return sign(a[bits / 8] & mask, b[bits / 8] & mask);
}

}  // namespace

bool compares(Comparison comparison, int order) {
  switch (comparison) {
    case Comparison::equal:
      return order == 0;
    case Comparison::unequal:
      return order != 0;
    case Comparison::less:
      return order < 0;
    case Comparison::at_most:
      return order <= 0;
    case Comparison::more:
      return order > 0;
    case Comparison::at_least:
      break;
  }
  return order >= 0;
}

Term::Term(const std::string &term) : text(term) {
  const std::size_t at = term.find_first_of("=!<>");
  const std::string sign_text =
      at == std::string::npos ? "" : term.substr(at, 1 + (term[at] != '=' && term[at + 1] == '='));
  if (at == 0 || sign_text.empty() || sign_text == "!") refuse(quoted(term) + " is not MEMBER=VALUE; or != < <= > >=");
  path = term.substr(0, at);
  value = term.substr(at + sign_text.size());
  if (sign_text == "!=") comparison = Comparison::unequal;
  if (sign_text == "<") comparison = Comparison::less;
  if (sign_text == "<=") comparison = Comparison::at_most;
  if (sign_text == ">") comparison = Comparison::more;
  if (sign_text == ">=") comparison = Comparison::at_least;
}

Condition::Condition(Term term) : term_(std::move(term)) {
  // A label's letters have one colon at most.
  if (std::count(term_.value.begin(), term_.value.end(), ':') > 1) prefix_ = read_prefix();
}

const std::optional<Condition::Resolved> &Condition::resolve(const Type &type, const Labels &labels) {
  const auto known = resolved_.find(&type);
  if (known != resolved_.end()) return known->second;
  std::optional<Resolved> &made = resolved_[&type];
  try {
    made = resolve_anew(type, term_.path, labels);
    fitted_ = true;
  } catch (const WhereError &error) {
    take_misfit(type, labels, error.what());
  }
  return made;
}

// A value that does not fit tells more than a member that most types do not have, and one that is nearly there more
// than one of another type.
void Condition::take_misfit(const Type &type, const Labels &labels, const std::string &why) {
  const std::string first = term_.path.substr(0, term_.path.find('.'));
  const int rank = labels.slot(type, first) ? 2 : labels.suggestion(type, first).is_there() ? 1 : 0;
  if (rank <= misfit_rank_) return;
  misfit_rank_ = rank;
  misfit_ = why;
}

std::string Condition::alternative(const Labels &labels) const {
  const auto may_be = [&](const Type &type, const std::string &path) {
    try {
      resolve_anew(type, path, labels);
      return true;
    } catch (const WhereError &) {
      return false;
    }
  };
  const std::size_t dot = term_.path.find('.');
  const std::string last = term_.path.substr(dot == std::string::npos ? 0 : dot + 1);
  for (const auto &[type, resolved] : resolved_) {
    if (may_be(*type, last)) return quoted(last) + " of " + type->name();
    for (std::size_t i = 0; i < type->slots.size(); ++i) {
      const std::string path = labels.name(*type, i) + '.' + last;
      if (type->slots[i].inner != nullptr && may_be(*type, path)) return quoted(path) + " of " + type->name();
    }
  }
  return {};
}

Condition::Resolved Condition::resolve_anew(const Type &type, const std::string &path, const Labels &labels) const {
  const auto slot_of = [&](const Type &table, const std::string &name) {
    const std::optional<std::size_t> slot = labels.slot(table, name);
    if (!slot) refuse(labels.no_member(table, name));
    return *slot;
  };
  const std::size_t dot = path.find('.');
  Resolved resolved = {TablePath::kNone, slot_of(type, path.substr(0, dot)), 0, {}, false};
  const Type *table = &type;
  const SlotInfo &first = type.slots[resolved.slot];
  if (dot != std::string::npos) {
    if (first.inner == nullptr) refuse(quoted(path.substr(0, dot)) + " of " + type.name() + " has no members");
    table = first.inner;
    resolved.outer = static_cast<uint32_t>(resolved.slot);
    resolved.slot = slot_of(*table, path.substr(dot + 1));
  }
  const SlotInfo &slot = table->slots[resolved.slot];
  if (slot.inner != nullptr) {
    refuse(quoted(path) + " of " + type.name() + " is " + describe::kind_text(slot) + "; name a member, as in " + path +
           ".f0");
  }
  read_value(slot, labels.find(*table, resolved.slot), resolved);
  return resolved;
}

void Condition::read_value(const SlotInfo &slot, const Label *label, Resolved &resolved) const {
  if (slot.kind == Kind::bytes || (slot.kind == Kind::array && slot.width == 1)) {
    const auto bytes = parse_hex(term_.value);
    if (!bytes) refuse(term_.text + ": " + quoted(term_.value) + " is not pairs of hexadecimal digits");
    resolved.bytes = *bytes;
    return;
  }
  if (prefix_) {
    if (!slot.is_address()) refuse(term_.text + ": the member is no address but " + describe::kind_text(slot));
    return;
  }
  std::optional<uint32_t> number = parse_number(term_.value);
  if (!number && label != nullptr) number = label->value_of(term_.value);
  if (!number) {
    refuse(term_.text + ": " + quoted(term_.value) +
           (slot.is_address() ? " is neither an IPv6 address nor a number" : " is no number"));
  }
  resolved.is_number = true;
  resolved.number = *number;
}

Condition::Prefix Condition::read_prefix() const {
  Prefix prefix = {{}, kAddressBits};
  const std::size_t slash = term_.value.find('/');
  const std::string address = term_.value.substr(0, slash);
  if (inet_pton(AF_INET6, address.c_str(), prefix.address) != 1)
    refuse(term_.text + ": " + quoted(address) + " is no IPv6 address");
  if (slash == std::string::npos) return prefix;
  const std::optional<uint32_t> bits = parse_number(term_.value.substr(slash + 1));
  if (!bits || *bits > kAddressBits) refuse(term_.text + ": a prefix has a length of 0 to 128");
  if (term_.comparison != Comparison::equal && term_.comparison != Comparison::unequal) {
    refuse(term_.text + ": a prefix goes with = and != only");
  }
  prefix.bits = *bits;
  return prefix;
}

bool Condition::holds(const Resolved &resolved, const SlotInfo &slot, const uint8_t *table) const {
  const uint8_t *value = table + slot.member;
  if (resolved.is_number) {
    const std::size_t elements = slot.kind == Kind::array ? slot.elements : 1;
    for (std::size_t i = 0; i < elements; ++i) {
      if (compares(term_.comparison, sign(number_at(value + i * slot.width, slot.width), resolved.number))) return true;
    }
    return false;
  }
  if (prefix_) {
    uint8_t address[kAddressBits / 8];
    for (std::size_t i = 0; i < sizeof address; i += 4) {
      const uint32_t word = htonl(number_at(value + i, 4));
      std::memcpy(address + i, &word, 4);
    }
    return compares(term_.comparison, compare_bits(address, prefix_->address, prefix_->bits));
  }
  std::size_t size = slot.elements;
  if (slot.kind == Kind::bytes) {
    size = member<uint32_t>(table, slot.length_member);
    value = member<const uint8_t *>(table, slot.member);
  }
  const std::size_t common = std::min(size, resolved.bytes.size());
  const int order = common == 0 ? 0 : std::memcmp(value, resolved.bytes.data(), common);
  return compares(term_.comparison,
                  order != 0 ? order : sign(static_cast<uint32_t>(size), static_cast<uint32_t>(resolved.bytes.size())));
}

const Where::Known &Where::known(const Type &type, const Labels &labels) {
  const auto [found, is_new] = types_.try_emplace(&type);
  Known &known = found->second;
  if (!is_new) return known;
  std::map<uint32_t, Group> by_table;
  for (Condition &condition : conditions_) {
    const auto &resolved = condition.resolve(type, labels);
    known.fits = known.fits && resolved;
    if (!resolved) continue;
    if (any_element_) {
      known.groups.push_back({{&condition, &*resolved}});
    } else {
      by_table[resolved->outer].emplace_back(&condition, &*resolved);
    }
  }
  for (auto &[outer, group] : by_table) known.groups.push_back(std::move(group));
  return known;
}

bool Where::fits(const Type &type, const Labels &labels) { return known(type, labels).fits; }

bool Where::group_holds(const Group &group, const Type &type, const uint8_t *record, const Extent &extent,
                        std::vector<Match> *matches) {
  const uint32_t outer = group.front().second->outer;
  uint32_t element = TablePath::kNone;
  std::size_t held = 0;
  const std::size_t before = matches == nullptr ? 0 : matches->size();
  for_each_member(type, record, extent, [&](const TablePath &path, std::size_t index, const uint8_t *table) {
    if (path.outer != outer) return true;
    if (path.element != element) {
      element = path.element;
      held = 0;
      if (matches != nullptr) matches->resize(before);
    }
    for (const auto &[condition, resolved] : group) {
      if (index != resolved->slot || !condition->holds(*resolved, path.type->slots[index], table)) continue;
      ++held;
      if (matches != nullptr) matches->push_back({path, index, table});
    }
    return held < group.size();
  });
  return held == group.size();
}

bool Where::holds(const Type &type, const uint8_t *record, const Extent &extent, const Labels &labels,
                  std::vector<Match> *matches) {
  const Known &asked = known(type, labels);
  return asked.fits && std::all_of(asked.groups.begin(), asked.groups.end(), [&](const Group &group) {
           return group_holds(group, type, record, extent, matches);
         });
}

std::vector<std::string> Where::misfits(const Labels &labels) const {
  std::vector<std::string> lines;
  for (const Condition &condition : conditions_) {
    if (condition.has_fitted() || condition.misfit().empty()) continue;
    const std::string meant = condition.alternative(labels);
    lines.push_back(condition.misfit() + (meant.empty() ? "" : "; did you mean " + meant + '?'));
  }
  return lines;
}

void Where::expect_fitting() const {
  for (const Condition &condition : conditions_) {
    if (!condition.has_fitted() && !condition.misfit().empty()) throw WhereError(condition.misfit());
  }
}

}  // namespace drix::inspect
