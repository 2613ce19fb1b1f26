#include "inspect/where.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

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

bool is_address(const SlotInfo &slot) { return slot.kind == Kind::array && slot.width == 4 && slot.elements == 4; }

int sign(uint32_t a, uint32_t b) { return a < b ? -1 : a > b; }

// Compares the first bits of two byte strings.
int compare_bits(const uint8_t *a, const uint8_t *b, uint32_t bits) {
  const int order = std::memcmp(a, b, bits / 8);
  if (order != 0 || bits % 8 == 0) return order;
  const auto mask = static_cast<uint8_t>(0xFF00u >> bits % 8);
  return sign(a[bits / 8] & mask, b[bits / 8] & mask);
}

}  // namespace

Where::Where(const std::string &term) : term_(term) {
  const std::size_t at = term.find_first_of("=!<>");
  const std::string sign_text =
      at == std::string::npos ? "" : term.substr(at, 1 + (term[at] != '=' && term[at + 1] == '='));
  if (at == 0 || sign_text.empty() || sign_text == "!") refuse(quoted(term) + " is not MEMBER=VALUE; or != < <= > >=");
  path_ = term.substr(0, at);
  value_ = term.substr(at + sign_text.size());
  if (sign_text == "!=") comparison_ = Comparison::unequal;
  if (sign_text == "<") comparison_ = Comparison::less;
  if (sign_text == "<=") comparison_ = Comparison::at_most;
  if (sign_text == ">") comparison_ = Comparison::more;
  if (sign_text == ">=") comparison_ = Comparison::at_least;
  // A label's letters have one colon at most.
  if (std::count(value_.begin(), value_.end(), ':') > 1) prefix_ = read_prefix();
}

const std::optional<Where::Resolved> &Where::resolve(const Type &type, const Labels &labels) {
  const auto known = resolved_.find(&type);
  if (known != resolved_.end()) return known->second;
  std::optional<Resolved> &made = resolved_[&type];
  try {
    made = resolve_anew(type, labels);
    fitted_ = true;
  } catch (const WhereError &error) {
    // A value that does not fit tells more than a member that most types do not have.
    if (misfit_.empty() || labels.slot(type, path_.substr(0, path_.find('.')))) misfit_ = error.what();
  }
  return made;
}

Where::Resolved Where::resolve_anew(const Type &type, const Labels &labels) const {
  const auto slot_of = [&](const Type &table, const std::string &name) {
    const std::optional<std::size_t> slot = labels.slot(table, name);
    if (!slot) refuse(table.name() + " has no member " + quoted(name));
    return *slot;
  };
  const std::size_t dot = path_.find('.');
  Resolved resolved = {TablePath::kNone, slot_of(type, path_.substr(0, dot)), 0, {}, false};
  const Type *table = &type;
  const SlotInfo &first = type.slots[resolved.slot];
  if (dot != std::string::npos) {
    if (first.inner == nullptr) refuse(quoted(path_.substr(0, dot)) + " of " + type.name() + " has no members");
    table = first.inner;
    resolved.outer = static_cast<uint32_t>(resolved.slot);
    resolved.slot = slot_of(*table, path_.substr(dot + 1));
  }
  const SlotInfo &slot = table->slots[resolved.slot];
  if (slot.inner != nullptr) {
    refuse(quoted(path_) + " of " + type.name() + " is " + describe::kind_text(slot) + "; name a member, as in " +
           path_ + ".f0");
  }
  read_value(slot, labels.find(*table, resolved.slot), resolved);
  return resolved;
}

void Where::read_value(const SlotInfo &slot, const Label *label, Resolved &resolved) const {
  if (slot.kind == Kind::bytes || (slot.kind == Kind::array && slot.width == 1)) {
    const auto bytes = parse_hex(value_);
    if (!bytes) refuse(term_ + ": " + quoted(value_) + " is not pairs of hexadecimal digits");
    resolved.bytes = *bytes;
    return;
  }
  if (prefix_) {
    if (!is_address(slot)) refuse(term_ + ": the member is no address but " + describe::kind_text(slot));
    return;
  }
  std::optional<uint32_t> number = parse_number(value_);
  if (!number && label != nullptr) number = label->value_of(value_);
  if (!number) {
    refuse(term_ + ": " + quoted(value_) +
           (is_address(slot) ? " is neither an IPv6 address nor a number" : " is no number"));
  }
  resolved.is_number = true;
  resolved.number = *number;
}

Where::Prefix Where::read_prefix() const {
  Prefix prefix = {{}, kAddressBits};
  const std::size_t slash = value_.find('/');
  const std::string address = value_.substr(0, slash);
  if (inet_pton(AF_INET6, address.c_str(), prefix.address) != 1)
    refuse(term_ + ": " + quoted(address) + " is no IPv6 address");
  if (slash == std::string::npos) return prefix;
  const std::optional<uint32_t> bits = parse_number(value_.substr(slash + 1));
  if (!bits || *bits > kAddressBits) refuse(term_ + ": a prefix has a length of 0 to 128");
  if (comparison_ != Comparison::equal && comparison_ != Comparison::unequal) {
    refuse(term_ + ": a prefix goes with = and != only");
  }
  prefix.bits = *bits;
  return prefix;
}

bool Where::compares(int order) const {
  switch (comparison_) {
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

bool Where::member_holds(const Resolved &resolved, const SlotInfo &slot, const uint8_t *table) const {
  const uint8_t *value = table + slot.member;
  if (resolved.is_number) {
    const std::size_t elements = slot.kind == Kind::array ? slot.elements : 1;
    for (std::size_t i = 0; i < elements; ++i) {
      if (compares(sign(number_at(value + i * slot.width, slot.width), resolved.number))) return true;
    }
    return false;
  }
  if (prefix_) {
    uint8_t address[kAddressBits / 8];
    for (std::size_t i = 0; i < sizeof address; i += 4) {
      const uint32_t word = htonl(number_at(value + i, 4));
      std::memcpy(address + i, &word, 4);
    }
    return compares(compare_bits(address, prefix_->address, prefix_->bits));
  }
  std::size_t size = slot.elements;
  if (slot.kind == Kind::bytes) {
    size = member<uint32_t>(table, slot.length_member);
    value = member<const uint8_t *>(table, slot.member);
  }
  const std::size_t common = std::min(size, resolved.bytes.size());
  const int order = common == 0 ? 0 : std::memcmp(value, resolved.bytes.data(), common);
  return compares(order != 0 ? order : sign(static_cast<uint32_t>(size), static_cast<uint32_t>(resolved.bytes.size())));
}

bool Where::holds(const Type &type, const uint8_t *record, const Extent &extent, const Labels &labels) {
  const std::optional<Resolved> &resolved = resolve(type, labels);
  if (!resolved) return false;
  bool held = false;
  for_each_member(type, record, extent, [&](const TablePath &path, std::size_t index, const uint8_t *table) {
    const bool is_asked = index == resolved->slot && path.outer == resolved->outer;
    held = is_asked && member_holds(*resolved, path.type->slots[index], table);
    return !held;
  });
  return held;
}

void Where::expect_fitting() const {
  if (!fitted_ && !misfit_.empty()) throw WhereError(misfit_);
}

}  // namespace drix::inspect
