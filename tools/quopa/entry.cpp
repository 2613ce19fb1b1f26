#include "tools/quopa/entry.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "capture/ring_file.h"
#include "capture/timeline.h"
#include "describe/printable.h"
#include "inspect/digits.h"
#include "inspect/extent.h"
#include "tools/quopa/show.h"

namespace quopa {
namespace {

using drix::Kind;
using drix::describe::printable;
using drix::describe::SlotInfo;
using drix::inspect::JsonStyle;
using drix::inspect::Label;
using drix::inspect::Labels;
using drix::inspect::Record;
using drix::inspect::TablePath;
using drix::inspect::Telling;

bool is_length(const SlotInfo &slot) { return slot.kind == Kind::scalar && slot.width == 1; }

// The place of the address in the key, and whether a length follows it; no value when the key has none.
struct Prefix {
  std::size_t place;
  bool has_length;
};
std::optional<Prefix> prefix_in(const TableInfo &table) {
  const auto &slots = table.record->slots;
  for (std::size_t i = 0; i < table.key.size(); ++i) {
    if (!slots[table.key[i]].is_address()) continue;
    return Prefix{i, i + 1 < table.key.size() && is_length(slots[table.key[i + 1]])};
  }
  return std::nullopt;
}

// Whether a member is part of an entry, and whether it is in the key.
bool belongs(const Telling &telling, const TablePath &path) {
  return telling.members.empty() ||
         std::find(telling.members.begin(), telling.members.end(), path.outer) != telling.members.end();
}
bool is_carried(const Telling &telling, const TablePath &path) {
  return telling.members.empty() ? path.outer == TablePath::kNone : path.outer == telling.members[0];
}
bool is_key(const Telling &telling, const TablePath &path, std::size_t slot) {
  return is_carried(telling, path) && std::find(telling.key.begin(), telling.key.end(), slot) != telling.key.end();
}

// Calls visit(path, slot, record of the path's table) for the members of an entry but the key's.
template <class Visit>
void for_each_told_member(const Telling &telling, const Record &record, Visit visit) {
  const auto take = [&](const TablePath &path, std::size_t index, const uint8_t *table) {
    if (belongs(telling, path) && !is_key(telling, path, index)) visit(path, index, table);
    return true;
  };
  drix::inspect::for_each_member(*telling.message, record.data(), {}, take);
}

// As for --where, with the element where there may be several.
std::string member_name(const Telling &telling, const TablePath &path, std::size_t slot, const Labels &labels) {
  std::string name;
  if (path.outer != TablePath::kNone) {
    name = labels.name(*telling.message, path.outer);
    if (path.element != TablePath::kNone && !is_carried(telling, path))
      name += '[' + std::to_string(path.element) + ']';
    name += '.';
  }
  return name + labels.name(*path.type, slot);
}

struct Value {
  std::tuple<std::size_t, uint32_t, std::size_t> place;  // the same in both entries of a table
  std::string member;
  std::string text;
  std::string bytes;  // of which the text may have only the first
  bool is_json;
  bool is_zero;

  bool differs(const Value &other) const {
    return text != other.text || (bytes.size() == other.bytes.size() && bytes != other.bytes);
  }
};

std::string bytes_of(const SlotInfo &slot, const uint8_t *table) {
  const auto *const value = reinterpret_cast<const char *>(table + slot.member);
  if (slot.kind != Kind::bytes) return {value, slot.width * std::max<std::size_t>(slot.elements, 1)};
  const auto size = drix::inspect::member<uint32_t>(table, slot.length_member);
  return size == 0 ? std::string() : std::string(drix::inspect::member<const char *>(table, slot.member), size);
}

std::vector<Value> values_of(const Row &entry) {
  std::vector<Value> values;
  const Telling &telling = *entry.telling;
  const JsonStyle &style = *entry.changed.source->style;
  const Record record = message_of(telling, entry.image());
  for_each_told_member(telling, record, [&](const TablePath &path, std::size_t index, const uint8_t *table) {
    const SlotInfo &slot = path.type->slots[index];
    const Label *const label = style.labels.find(*path.type, index);
    const std::string text = value_text(slot, table, label);
    const bool is_number = slot.kind == Kind::scalar && text.find_first_not_of("0123456789") == std::string::npos;
    const std::size_t outer = is_carried(telling, path) ? 0 : std::size_t{path.outer} + 1;
    values.push_back({{outer, outer == 0 ? 0 : path.element + 1, index},
                      member_name(telling, path, index, style.labels),
                      text,
                      bytes_of(slot, table),
                      (is_number && !text.empty()) || text.starts_with('['),
                      is_zero(slot, table)});
  });
  // How many elements there are, for those that are there may be zero.
  for (const std::size_t index : telling.members) {
    const SlotInfo &slot = telling.message->slots[index];
    if (index == telling.members[0] || slot.kind != Kind::vector) continue;
    const auto count = drix::inspect::member<uint32_t>(record.data(), slot.length_member);
    values.push_back(
        {{index + 1, 0, 0}, style.labels.name(*telling.message, index), std::to_string(count), {}, true, count == 0});
  }
  std::stable_sort(values.begin(), values.end(), [](const Value &a, const Value &b) { return a.place < b.place; });
  return values;
}

}  // namespace

std::string key_text(const TableInfo &table, std::string_view key, const Labels &labels) {
  const Record record = record_of_key(table, key);
  const std::optional<Prefix> prefix = prefix_in(table);
  std::string text;
  for (std::size_t i = 0; i < table.key.size(); ++i) {
    const SlotInfo &slot = table.record->slots[table.key[i]];
    const Label *const label = labels.find(*table.record, table.key[i]);
    if (prefix && prefix->has_length && i == prefix->place + 1) {
      text += '/';
      text += std::to_string(drix::inspect::number_at(record.data() + slot.member, slot.width));
      continue;
    }
    const bool is_prefix = prefix && i == prefix->place;
    if (prefix && !is_prefix && is_zero(slot, record.data())) continue;
    if (!text.empty()) text += ' ';
    if (!is_prefix) text += labels.name(*table.record, table.key[i]) + '=';
    text += slot.is_address() ? drix::inspect::address_text(record.data() + slot.member)
                              : value_text(slot, record.data(), label);
  }
  return text;
}

KeyFilter::KeyFilter(const std::string &text, const drix::inspect::Tables &tables, const Labels &labels)
    : labels_(labels) {
  const auto refuse = [&](const std::string &what) {
    throw BadUsage("the key " + drix::describe::quoted(text) + ": " + what);
  };
  constexpr char kBetween[] = " ,";
  for (std::size_t at = text.find_first_not_of(kBetween); at < text.size();) {
    const std::size_t end = std::min(text.find_first_of(kBetween, at), text.size());
    const std::string word = text.substr(at, end - at);
    at = text.find_first_not_of(kBetween, end);
    if (word.find_first_of("=!<>") != std::string::npos) {
      try {
        terms_.emplace_back(word);
      } catch (const drix::inspect::WhereError &error) {
        refuse(error.what());
      }
      continue;
    }
    const std::size_t slash = std::min(word.find('/'), word.size());
    Address address = {};
    if (inet_pton(AF_INET6, word.substr(0, slash).c_str(), address.bytes) != 1) {
      refuse(drix::describe::quoted(word) + " is neither an IPv6 address or prefix nor MEMBER=VALUE");
    }
    if (slash < word.size()) {
      address.length = drix::inspect::parse_number(std::string_view(word).substr(slash + 1));
      if (!address.length || *address.length > 128) refuse("a prefix has a length of 0 to 128");
    }
    addresses_.push_back(address);
  }
  if (addresses_.empty() && terms_.empty()) refuse("it has no words");
  const auto &all = tables.all();
  if (std::any_of(all.begin(), all.end(), [this](const TableInfo *table) { return fits(*table); })) return;
  for (Term &term : terms_) {
    for (const TableInfo *table : all) term.where.fits(*table->record, labels_);
    for (const std::string &misfit : term.where.misfits(labels_)) refuse(misfit);
  }
  refuse("no table has such a key");
}

bool KeyFilter::fits(const TableInfo &table) {
  const std::optional<Prefix> prefix = prefix_in(table);
  const bool good = std::all_of(addresses_.begin(), addresses_.end(), [&](const Address &address) {
    return prefix && (!address.length || prefix->has_length);
  });
  return good && std::all_of(terms_.begin(), terms_.end(), [&](Term &term) {
           const auto slot = labels_.slot(*table.record, term.member);
           return slot && std::find(table.key.begin(), table.key.end(), *slot) != table.key.end() &&
                  term.where.fits(*table.record, labels_);
         });
}

bool KeyFilter::takes(const TableInfo &table, std::string_view key) {
  if (!addresses_.empty()) {
    const std::optional<Prefix> prefix = prefix_in(table);
    if (!prefix) return false;
    std::size_t at = 1;
    for (std::size_t i = 0; i < prefix->place; ++i) {
      const SlotInfo &slot = table.record->slots[table.key[i]];
      at += slot.width * std::max<std::size_t>(slot.elements, 1);
    }
    for (const Address &address : addresses_) {
      if (std::memcmp(key.data() + at, address.bytes, sizeof address.bytes) != 0) return false;
      if (!address.length) continue;
      if (!prefix->has_length || static_cast<uint8_t>(key[at + sizeof address.bytes]) != *address.length) return false;
    }
  }
  if (terms_.empty()) return true;
  if (!fits(table)) return false;
  const Record record = record_of_key(table, key);
  return std::all_of(terms_.begin(), terms_.end(),
                     [&](Term &term) { return term.where.holds(*table.record, record.data(), {}, labels_); });
}

std::vector<Difference> differences(const Row &from, const Row &to) {
  std::vector<Difference> found;
  const std::vector<Value> old_values = values_of(from);
  const std::vector<Value> new_values = values_of(to);
  static constexpr char kZero[] = "0";  // what is not there
  auto a = old_values.begin();
  auto b = new_values.begin();
  while (a != old_values.end() || b != new_values.end()) {
    if (b == new_values.end() || (a != old_values.end() && a->place < b->place)) {
      if (!a->is_zero) found.push_back({a->member, a->text, kZero, a->is_json});
      ++a;
    } else if (a == old_values.end() || b->place < a->place) {
      if (!b->is_zero) found.push_back({b->member, kZero, b->text, b->is_json});
      ++b;
    } else {
      if (a->differs(*b)) found.push_back({b->member, a->text, b->text, a->is_json && b->is_json});
      ++a;
      ++b;
    }
  }
  return found;
}

Lines::Lines(const std::vector<std::string> &paths, Styles &styles) : styles_(styles) {
  std::size_t captures = 0;
  for (const std::string &path : paths) captures += capture::captures_in(path).size();
  has_capture_ = captures > 1;
}

void Lines::begin(std::ostream &out, const Mark &mark) const {
  show_packet(out, mark);
  out << (mark.source->teller->is_sent() ? " -> " : " <- ");
}

void Lines::show_packet(std::ostream &out, const Mark &mark) const {
  const Teller &teller = *mark.source->teller;
  if (has_capture_) out << printable(capture::short_path(mark.source->capture));
  out << '#' << mark.packet << ' ' << time_text(mark.time, false) << ' ' << who(teller);
}

void Lines::show_key(std::ostream &out, const TableInfo &table, std::string_view key) const {
  out << table.record->name() << ' ' << key_text(table, key, styles_.own().labels);
}

void Lines::show_members(std::ostream &out, const Row &entry) const {
  const Telling &telling = *entry.telling;
  const JsonStyle &style = *entry.changed.source->style;
  const Record record = message_of(telling, entry.image());
  for_each_told_member(telling, record, [&](const TablePath &path, std::size_t index, const uint8_t *table) {
    const SlotInfo &slot = path.type->slots[index];
    if (is_zero(slot, table)) return;
    out << ' ' << member_name(telling, path, index, style.labels) << '='
        << value_text(slot, table, style.labels.find(*path.type, index));
  });
}

void Lines::show(std::ostream &out, const std::vector<Difference> &differences) const {
  for (std::size_t i = 0; i < differences.size(); ++i) {
    out << (i > 0 ? ", " : " ") << differences[i].member << ' ' << differences[i].from << " -> " << differences[i].to;
  }
}

void Lines::begin_json(std::ostream &out, const Mark &mark) const {
  const Teller &teller = *mark.source->teller;
  out << "\"capture\":" << json_string(printable(mark.source->capture)) << ",\"packet\":" << mark.packet
      << ",\"time\":" << seconds_text(mark.time) << ",\"time_ns\":\"" << mark.time
      << "\",\"program\":" << json_string(teller.program) << ",\"process\":" << teller.process
      << ",\"direction\":" << (teller.is_sent() ? "\"sent\"" : "\"received\"");
}

void Lines::show_key_json(std::ostream &out, const TableInfo &table, std::string_view key) const {
  out << "\"table\":\"" << table.record->name()
      << "\",\"key\":" << json_string(key_text(table, key, styles_.own().labels));
}

void Lines::show_record_json(std::ostream &out, const Row &entry) const {
  out << "\"type\":\"" << entry.telling->message->name() << "\",\"record\":";
  const Record record = message_of(*entry.telling, entry.image());
  write_json(out, *entry.telling->message, record.data(), *entry.changed.source->style);
}

void Lines::show_json(std::ostream &out, const std::vector<Difference> &differences) const {
  out << "\"members\":{";
  for (std::size_t i = 0; i < differences.size(); ++i) {
    const Difference &difference = differences[i];
    const auto value = [&](const std::string &text) { return difference.is_json ? text : json_string(text); };
    out << (i > 0 ? "," : "") << '"' << difference.member << "\":[" << value(difference.from) << ','
        << value(difference.to) << ']';
  }
  out << '}';
}

Conditions::Conditions(const SelectionOptions &options, Styles &styles) : styles_(styles) {
  try {
    for (const std::string &term : options.where) {
      if (!PacketTerm::is_one(term)) where_.add(drix::inspect::Term(term));
    }
  } catch (const drix::inspect::WhereError &error) {
    throw BadUsage(std::string("--where ") + error.what());
  }
  if (options.any_element) where_.allow_any_element();
}

bool Conditions::hold(const Row &entry) {
  if (where_.is_empty()) return true;
  const drix::describe::Type &type = *entry.telling->message;
  const drix::inspect::Labels &labels = entry.changed.source->style->labels;
  if (!where_.fits(type, labels)) return false;
  const Record record = message_of(*entry.telling, entry.image());
  return where_.holds(type, record.data(), {}, labels);
}

void Conditions::expect_fitting(const drix::inspect::Tables &tables) {
  for (const auto &[type, telling] : tables.own()) {
    if (!telling.deletes) where_.fits(*type, styles_.own().labels);
  }
  for (const std::string &misfit : where_.misfits(styles_.own().labels)) throw BadUsage("--where " + misfit);
}

}  // namespace quopa
