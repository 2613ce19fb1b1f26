#include "describe/schema.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

#include "runtime/wire.h"

namespace drix::describe {
namespace {

constexpr std::string_view kHeading = "# quopa schema 1";
constexpr std::size_t kLongestIdentifier = 63;

// How a C compiler lays out a record whose pointers have a size that may not be this processor's.
struct Layout {
  uint32_t size = 0;
  uint32_t alignment = 1;
  std::vector<uint32_t> members;

  uint32_t add(uint32_t bytes, uint32_t member_alignment) {
    const auto at = static_cast<uint32_t>(round_up(size, member_alignment));
    size = at + bytes;
    alignment = std::max(alignment, member_alignment);
    return at;
  }
};

Layout lay_out(const Type &type, uint32_t pointer) {
  Layout layout;
  for (const SlotInfo &slot : type.slots) {
    uint32_t bytes = slot.width * std::max<uint32_t>(slot.elements, 1);
    uint32_t alignment = slot.width;
    if (slot.kind == Kind::table) {
      const Layout inner = lay_out(*slot.inner, pointer);
      bytes = inner.size;
      alignment = inner.alignment;
    } else if (slot.kind == Kind::bytes || slot.kind == Kind::vector) {
      layout.add(kWord, kWord);
      bytes = alignment = pointer;
    }
    layout.members.push_back(layout.add(bytes, alignment));
  }
  layout.size = static_cast<uint32_t>(round_up(layout.size, layout.alignment));
  return layout;
}

// The compiler's own figures where the pointer has this processor's size.
Layout layout_of(const Type &type, uint32_t pointer) {
  if (pointer != sizeof(void *)) return lay_out(type, pointer);
  Layout layout;
  layout.size = type.record_size;
  for (const SlotInfo &slot : type.slots) layout.members.push_back(slot.member);
  return layout;
}

SchemaType schema_of(const Type &type) {
  const Layout of_4 = layout_of(type, 4);
  const Layout of_8 = layout_of(type, 8);
  SchemaType made = {
      type.name(), type.id, type.fixed_length, type.compact_least, type.compact_most, {of_4.size, of_8.size}, {}};
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    made.slots.push_back({slot.kind,
                          slot.width,
                          slot.elements,
                          slot.inner == nullptr ? std::string() : std::string(slot.inner->message),
                          {of_4.members[i], of_8.members[i]}});
  }
  return made;
}

std::string text_of(const ByPointer &value) {
  const std::string text = std::to_string(value.of_4);
  return value.of_4 == value.of_8 ? text : text + '/' + std::to_string(value.of_8);
}

// Takes a line apart from the left; throws a message at what does not fit.
class Line {
 public:
  explicit Line(std::string_view text) : rest_(text) {}

  bool empty() const { return rest_.empty(); }

  bool take(std::string_view word) {
    if (!rest_.starts_with(word)) return false;
    rest_.remove_prefix(word.size());
    return true;
  }

  void expect(std::string_view word) {
    if (!take(word)) fail('"' + std::string(word) + '"');
  }

  uint32_t number(int base = 10) {
    uint32_t value = 0;
    const auto [end, error] = std::from_chars(rest_.data(), rest_.data() + rest_.size(), value, base);
    if (error != std::errc()) fail("a number");
    rest_.remove_prefix(static_cast<std::size_t>(end - rest_.data()));
    return value;
  }

  ByPointer by_pointer() {
    const uint32_t of_4 = number();
    return {of_4, take("/") ? number() : of_4};
  }

  // Of C, as long as compilers tell such names apart.
  std::string identifier() {
    const auto is_letter = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; };
    const auto end =
        std::find_if(rest_.begin(), rest_.end(), [=](char c) { return !is_letter(c) && (c < '0' || c > '9'); });
    const std::string name(rest_.begin(), end);
    if (name.empty() || !is_letter(name[0]) || name.size() > kLongestIdentifier) fail("a name of C");
    rest_.remove_prefix(name.size());
    return name;
  }

  // What follows is of this slot.
  void start_slot(std::size_t slot) { where_ = slot_text(slot); }

  [[noreturn]] void fail(const std::string &wanted) const {
    throw std::invalid_argument(where_ + wanted + " is wanted" +
                                (rest_.empty() ? " at the end" : " at \"" + std::string(rest_.substr(0, 20)) + '"'));
  }

 private:
  std::string_view rest_;
  std::string where_;
};

// The kinds that a member of a record can have, see runtime/slots.h.
SchemaSlot parse_slot(Line &line) {
  SchemaSlot slot = {};
  if (line.take("bytes")) {
    slot.kind = Kind::bytes;
  } else if (const bool is_table = line.take("table("); is_table || line.take("vector(")) {
    slot.kind = is_table ? Kind::table : Kind::vector;
    slot.inner = line.identifier();
    line.expect(")");
  } else {
    line.expect("u");
    const uint32_t bits = line.number();
    if (bits != 8 && bits != 16 && bits != 32) line.fail("after a width of 8, 16 or 32 bits");
    slot.width = bits / 8;
    slot.kind = line.take("[") ? Kind::array : Kind::scalar;
    if (slot.kind == Kind::array) {
      if (bits == 16) line.fail("an array of u8 or u32");
      slot.elements = line.number();
      if (slot.elements == 0 || slot.elements > UINT16_MAX) line.fail("an array of 1 to 65535 elements");
      line.expect("]");
    }
  }
  line.expect("@");
  slot.member = line.by_pointer();
  return slot;
}

SchemaType parse_type(Line line) {
  SchemaType type = {};
  type.name = line.identifier();
  line.expect(".");
  type.name += '.' + line.identifier();
  line.expect(" 0x");
  type.id = line.number(16);
  if (!line.take(" variable")) {
    line.expect(" fixed=");
    type.fixed_length = line.number();
  }
  line.expect(" compact=");
  type.compact_least = line.number();
  line.expect("..");
  if (type.fixed_length != 0) type.compact_most = line.number();
  line.expect(" record=");
  type.record_size = line.by_pointer();
  do {
    line.start_slot(type.slots.size());
    if (type.slots.size() == kMaxSlots) line.fail("the line's end");
    line.expect(" ");
    type.slots.push_back(parse_slot(line));
  } while (!line.empty());
  return type;
}

}  // namespace

Schema current_schema() {
  Schema schema;
  for (const Type *type : types()) schema.push_back(schema_of(*type));
  std::sort(schema.begin(), schema.end(), [](const auto &a, const auto &b) { return a.name < b.name; });
  return schema;
}

std::string slot_text(std::size_t slot) { return "slot " + std::to_string(slot) + ": "; }

std::string kind_text(const SchemaSlot &slot) { return kind_text(slot.kind, slot.width, slot.elements, slot.inner); }

std::string to_text(const SchemaType &type) {
  char id[16];
  std::snprintf(id, sizeof id, " 0x%08X", type.id);
  std::string text = type.name + id;
  text += type.fixed_length == 0 ? " variable" : " fixed=" + std::to_string(type.fixed_length);
  text += " compact=" + std::to_string(type.compact_least) + "..";
  if (type.compact_most != 0) text += std::to_string(type.compact_most);
  text += " record=" + text_of(type.record_size);
  for (const SchemaSlot &slot : type.slots) text += ' ' + kind_text(slot) + '@' + text_of(slot.member);
  return text + '\n';
}

std::string to_text(const Schema &schema) {
  std::string text = std::string(kHeading) + '\n';
  for (const SchemaType &type : schema) text += to_text(type);
  return text;
}

Schema parse_schema(std::string_view text) {
  Schema schema;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    text.remove_prefix(std::min(line.size() + 1, text.size()));
    try {
      if (number == 1) {
        if (line != kHeading) throw std::invalid_argument('"' + std::string(kHeading) + "\" is wanted");
        continue;
      }
      schema.push_back(parse_type(Line(line)));
      if (schema.size() > 1 && schema.end()[-2].name >= schema.back().name) {
        throw std::invalid_argument("types are wanted in the order of their names, each once");
      }
    } catch (const std::invalid_argument &error) {
      throw SchemaError(number, error.what());
    }
  }
  if (schema.empty()) throw SchemaError(1, "no types");
  return schema;
}

}  // namespace drix::describe
