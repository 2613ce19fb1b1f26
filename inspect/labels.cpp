#include "inspect/labels.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "describe/printable.h"
#include "inspect/digits.h"

namespace drix::inspect {
namespace {

using describe::quoted;
using describe::SlotInfo;
using describe::Type;

constexpr std::string_view kBlanks = " \t\r";

std::string_view trim(std::string_view text) {
  const std::size_t first = std::min(text.find_first_not_of(kBlanks), text.size());
  text.remove_prefix(first);
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// Takes a word off the front.
std::string_view take_word(std::string_view &text) {
  text = trim(text);
  const std::string_view word = text.substr(0, text.find_first_of(kBlanks));
  text.remove_prefix(word.size());
  return word;
}

[[noreturn]] void fail(const std::string &what) { throw std::invalid_argument(what); }

bool is_word(std::string_view text) {
  return !text.empty() && std::all_of(text.begin(), text.end(), [](unsigned char c) {
    return c < 128 && (std::isalnum(c) != 0 || c == '_' || c == '-');
  });
}

bool is_letter(std::string_view text) {
  return text.size() == 1 && text[0] > ' ' && text[0] <= '~' && text[0] != '"' && text[0] != '\\';
}

// The slot that f<I> names.
std::optional<std::size_t> positional(const Type &type, std::string_view name) {
  std::size_t slot = 0;
  if (name.size() < 2 || name[0] != 'f' || (name[1] == '0' && name.size() > 2)) return std::nullopt;
  const auto [end, error] = std::from_chars(name.data() + 1, name.data() + name.size(), slot);
  if (error != std::errc() || end != name.data() + name.size() || slot >= type.slots.size()) return std::nullopt;
  return slot;
}

// A number of so many bits, or several: by what entries of a table are told apart.
bool is_plain(const SlotInfo &slot) { return slot.kind == Kind::scalar || slot.kind == Kind::array; }

// Whether the line says what a type has to do with a table.
bool is_role(std::string_view line) {
  const std::string_view word = take_word(line);
  return (word == "adds" || word == "deletes" || word == "key" || word == "apart") && !trim(line).starts_with('=');
}

bool looks_positional(std::string_view name) {
  return name.size() > 1 && name[0] == 'f' && name.find_first_not_of("0123456789", 1) == std::string_view::npos;
}

uint32_t parse_value(std::string_view text, uint32_t width) {
  const std::optional<uint32_t> value = parse_number(text);
  const uint32_t most = UINT32_MAX >> (32 - 8 * width);
  if (!value || *value > most) fail(quoted(text) + " is not a number from 0 to " + std::to_string(most));
  return *value;
}

// WORD=NUMBER or LETTER=NUMBER, until the line's end.
void parse_meaning(std::string_view text, const SlotInfo &slot, Label &label) {
  while (!trim(text).empty()) {
    const std::string_view item = take_word(text);
    const std::size_t equals = item.rfind('=');
    const std::string_view word = item.substr(0, equals);
    if (equals == std::string_view::npos || !(label.is_flags ? is_letter(word) : is_word(word))) {
      fail(quoted(item) + (label.is_flags ? " is not LETTER=NUMBER" : " is not WORD=NUMBER"));
    }
    const uint32_t value = parse_value(item.substr(equals + 1), slot.width);
    if (label.is_flags && value == 0) fail(quoted(item) + " has no bit");
    if (!label.values.emplace(word, value).second || !label.indices.emplace(value, label.meaning.size()).second) {
      fail(quoted(item) + " is there already");
    }
    label.meaning.emplace_back(word, value);
  }
  if (label.meaning.empty()) fail("no values");
}

}  // namespace

std::optional<std::string> Label::text_of(uint32_t value) const {
  if (!is_flags) {
    const auto found = indices.find(value);
    return found == indices.end() ? std::nullopt : std::optional(meaning[found->second].first);
  }
  std::string letters;
  uint32_t shown = 0;
  for (const auto &[letter, bits] : meaning) {
    if ((value & bits) != bits) continue;
    letters += letter;
    shown |= bits;
  }
  if (shown != value) return std::nullopt;
  return letters;
}

std::optional<uint32_t> Label::value_of(const std::string &text) const {
  if (!is_flags) {
    const auto found = values.find(text);
    return found == values.end() ? std::nullopt : std::optional(found->second);
  }
  uint32_t value = 0;
  for (const char letter : text) {
    const auto found = values.find(std::string(1, letter));
    if (found == values.end()) return std::nullopt;
    value |= found->second;
  }
  return value;
}

Labels::Labels(std::string_view file) {
  constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";  // which some editors begin UTF-8 with
  if (file.starts_with(kByteOrderMark)) file.remove_prefix(kByteOrderMark.size());
  const Type *type = nullptr;
  for (std::size_t number = 1; !file.empty(); ++number) {
    const std::string_view whole = file.substr(0, file.find('\n'));
    file.remove_prefix(std::min(whole.size() + 1, file.size()));
    const std::string_view line = trim(whole);
    try {
      if (line.empty() || line[0] == '#' || line[0] == ';') continue;
      if (line[0] == '[') {
        const std::string_view name = line.ends_with(']') ? line.substr(1, line.size() - 2) : line;
        type = describe::find(name);
        if (type == nullptr) fail("no type " + quoted(name) + describe::suggested_type(name).text());
        types_[type].resize(type->slots.size());
      } else if (type == nullptr) {
        fail("a section [PACKAGE.MESSAGE] is wanted first");
      } else {
        is_role(line) ? parse_role(*type, line) : parse_member(*type, line);
      }
    } catch (const std::invalid_argument &error) {
      throw LabelError(number, error.what());
    }
  }
}

Labels Labels::carried_over(std::span<const Type *const> types) const {
  Labels carried;
  for (const Type *type : types) {
    const Type *const own = describe::find(type->name());
    const auto found = own == nullptr ? types_.end() : types_.find(own);
    if (found == types_.end()) continue;
    auto &labels = carried.types_[type];
    labels.resize(type->slots.size());
    for (std::size_t i = 0; i < std::min(type->slots.size(), own->slots.size()); ++i) {
      if (describe::kind_text(type->slots[i]) == describe::kind_text(own->slots[i])) labels[i] = found->second[i];
    }
  }
  return carried;
}

void Labels::parse_member(const Type &type, std::string_view line) {
  const std::size_t equals = line.find('=');
  if (equals == std::string_view::npos) fail("MEMBER = NAME is wanted");
  const std::string_view member = trim(line.substr(0, equals));
  const std::optional<std::size_t> index = positional(type, member);
  if (!index) fail(no_member(type, member));
  std::string_view rest = line.substr(equals + 1);
  const std::string_view name = take_word(rest);
  if (!is_word(name)) fail(quoted(name) + " is no name");
  if (looks_positional(name) && name != member) fail(quoted(name) + " is reserved for slots");
  const std::optional<std::size_t> other = slot(type, name);
  if (other && *other != *index) fail(quoted(name) + " is a member already");

  const SlotInfo &slot = type.slots[*index];
  Label label;
  label.name = name;
  const std::string_view what = take_word(rest);
  if (what == "ipv6") {
    if (!slot.is_address()) {
      fail("ipv6 is for u32[4], and " + std::string(member) + " is " + describe::kind_text(slot));
    }
    label.ipv6 = true;
    if (!trim(rest).empty()) fail(quoted(trim(rest)) + " behind ipv6");
  } else if (what == "enum" || what == "flags") {
    if (slot.kind != Kind::scalar) {
      fail(std::string(what) + " is for scalars, and " + std::string(member) + " is " + describe::kind_text(slot));
    }
    label.is_flags = what == "flags";
    parse_meaning(rest, slot, label);
  } else if (!what.empty()) {
    fail(quoted(what) + " is neither ipv6 nor enum nor flags");
  }
  if (types_[&type][*index] != nullptr) fail(std::string(member) + " has a label already");
  types_[&type][*index] = std::make_shared<const Label>(std::move(label));
}

std::size_t Labels::member(const Type &type, std::string_view name) const {
  const std::optional<std::size_t> found = slot(type, name);
  if (!found) fail(type.name() + " has no member " + quoted(name));
  return *found;
}

void Labels::parse_role(const Type &type, std::string_view line) {
  using Part = Role::Part;
  const std::string_view word = take_word(line);
  Role role = {word == "adds"      ? Part::adds
               : word == "deletes" ? Part::deletes
               : word == "apart"   ? Part::apart
                                   : Part::key,
               {}};
  if (role.part == Part::key && trim(line).starts_with("of ")) {
    take_word(line);
    const std::string_view record = take_word(line);
    role.part = Part::key_of;
    role.record = describe::find(record);
    if (role.record == nullptr) fail("no type " + quoted(record));
  }
  const bool is_teller = role.part == Part::adds || role.part == Part::deletes;
  for (std::string_view item = take_word(line); !item.empty() && item[0] != '#'; item = take_word(line)) {
    const std::size_t equals = std::min(item.find('='), item.size());
    const std::size_t index = member(type, item.substr(0, equals));
    const SlotInfo &slot = type.slots[index];
    if (std::count(role.members.begin(), role.members.end(), index) > 0) fail(quoted(item) + " is there already");
    if (!is_teller && !is_plain(slot))
      fail(quoted(item) + " is " + describe::kind_text(slot) + ", not a number or several");
    if (is_teller && slot.inner == nullptr) fail(quoted(item) + " is neither table nor vector");
    if (is_teller && !role.members.empty() &&
        (role.part == Part::deletes || type.slots[role.members[0]].kind == Kind::vector)) {
      fail(quoted(item) + " belongs to no single entry");
    }
    role.members.push_back(index);
    if ((equals < item.size()) != (role.part == Part::key_of)) {
      fail(quoted(item) + (equals < item.size() ? " is no member" : " is not MEMBER=MEMBER"));
    }
    if (role.part != Part::key_of) continue;
    const std::size_t there = member(*role.record, item.substr(equals + 1));
    const std::string wanted = describe::kind_text(role.record->slots[there]);
    if (wanted != describe::kind_text(slot))
      fail(quoted(item) + ": " + describe::kind_text(slot) + " is not " + wanted);
    role.record_members.push_back(there);
  }
  if (!is_teller && role.members.empty()) fail("members are wanted");
  Roles &roles = is_teller ? tellers_ : role.part == Part::apart ? apart_ : keys_;
  if (!roles.emplace(&type, std::move(role)).second) fail(type.name() + " has such a line already");
}

const Label *Labels::find(const Type &type, std::size_t slot) const {
  const auto found = types_.find(&type);
  return found == types_.end() ? nullptr : found->second[slot].get();
}

std::string Labels::name(const Type &type, std::size_t slot) const {
  const Label *label = find(type, slot);
  return label == nullptr ? 'f' + std::to_string(slot) : label->name;
}

std::string Labels::no_member(const Type &type, std::string_view name) const {
  const describe::Suggestion suggested = suggestion(type, name);
  const std::string what = type.name() + " has no member " + quoted(name);
  if (suggested.is_there() || type.slots.empty()) return what + suggested.text();
  const std::string members = "f0 to f" + std::to_string(type.slots.size() - 1);
  const bool is_named = types_.contains(&type) || looks_positional(name);
  return what + "; it has " + members + (is_named ? "" : ", and no labels give these other names");
}

describe::Suggestion Labels::suggestion(const Type &type, std::string_view name) const {
  describe::Suggestion suggestion(name);
  for (std::size_t i = 0; i < type.slots.size() && !looks_positional(name); ++i) {
    const Label *label = find(type, i);
    if (label != nullptr) suggestion.consider(label->name);
  }
  return suggestion;
}

std::optional<std::size_t> Labels::slot(const Type &type, std::string_view name) const {
  if (looks_positional(name)) return positional(type, name);
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const Label *label = find(type, i);
    if (label != nullptr && label->name == name) return i;
  }
  return std::nullopt;
}

}  // namespace drix::inspect
