#include "tools/quopa/meaning.h"

#include <cstdio>

#include "inspect/record.h"
#include "runtime/wire.h"

namespace quopa {
namespace {

using drix::Kind;
using drix::describe::SlotInfo;
using drix::inspect::Event;
using drix::inspect::TablePath;
using drix::inspect::Thing;

std::string offset_text(const Event &word) {
  return "offset " + std::to_string(word.value) + ", to " + std::to_string(uint64_t{word.at} + word.value);
}

std::string number_text(uint32_t value, const drix::inspect::Label *label) {
  std::string text = drix::inspect::scalar_text(value, label);
  if (value < 10 && text == std::to_string(value)) return text;
  char hexadecimal[16];
  std::snprintf(hexadecimal, sizeof hexadecimal, " (0x%x)", value);
  return text + hexadecimal;
}

std::string distance_text(const Event &word) {
  const uint32_t vtable = word.at - word.value;
  const bool before = vtable < word.at;
  return "vtable " + std::to_string(before ? word.value : -word.value) + (before ? " before, at " : " behind, at ") +
         std::to_string(vtable);
}

// In quotes where it is all printable.
std::string characters(const uint8_t *bytes, uint32_t size) {
  std::string text = "\"";
  for (uint32_t i = 0; i < size; ++i) {
    if (bytes[i] < ' ' || bytes[i] > '~') return {};
    text += static_cast<char>(bytes[i]);
  }
  return text + '"';
}

}  // namespace

std::string Meaning::table_name(const TablePath &path) const {
  if (path.outer == TablePath::kNone) return {};
  std::string name = style_.labels.name(root_, path.outer);
  if (path.element != TablePath::kNone) name += '[' + std::to_string(path.element) + ']';
  return name;
}

std::string Meaning::slot_name(const TablePath &path, uint32_t slot) const {
  const std::string table = table_name(path);
  return (table.empty() ? table : table + '.') + style_.labels.name(*path.type, slot);
}

std::string Meaning::text(const Entry &entry, uint32_t from, uint32_t size) const {
  const auto &[path, event] = entry;
  if (from > event.at && event.thing != Thing::elements) return {};
  const std::string table = table_name(path);
  const std::string of_table = table.empty() ? "" : " of " + table;
  switch (event.thing) {
    case Thing::root_offset:
      return "root offset: the table is at " + std::to_string(event.value);
    case Thing::distance:
      return "table" + of_table + ": its " + distance_text(event);
    case Thing::vtable_length:
      return "vtable" + of_table + ": " + std::to_string(event.value) + " bytes";
    case Thing::table_size:
      return "table" + of_table + ": " + std::to_string(event.value) + " bytes";
    case Thing::slot_entry:
      return slot_name(path, event.slot) +
             (event.value == 0 ? " is absent" : " is at table + " + std::to_string(event.value));
    case Thing::more_entries:
      return "vtable" + of_table + ": entries of slots unknown here";
    case Thing::scalar:
      return slot_name(path, event.slot) + " = " + number_text(event.value, style_.labels.find(*path.type, event.slot));
    case Thing::offset_word:
      return slot_name(path, event.slot) + ": " + offset_text(event);
    case Thing::count:
      return slot_name(path, event.slot) +
             (path.type->slots[event.slot].kind == Kind::bytes ? ": length " : ": count ") +
             std::to_string(event.value);
    case Thing::elements:
      return elements_text(entry, from, size);
    case Thing::element_word:
      return slot_name(path, event.slot) + '[' + std::to_string(event.element) + "]: " + offset_text(event);
    case Thing::unwritten:
      return "left unwritten by the fixed layout";
    case Thing::unreferenced:
      return "nothing points here";
    case Thing::unreached:
      break;
  }
  return "not read";
}

std::string Meaning::elements_text(const Entry &entry, uint32_t from, uint32_t size) const {
  const auto &[path, event] = entry;
  const SlotInfo &slot = path.type->slots[event.slot];
  const std::string name = slot_name(path, event.slot);
  if (slot.kind == Kind::bytes || slot.width == 1) {
    const std::string text = characters(buffer_ + from, size);
    return from > event.at ? text : name + (text.empty() ? ": bytes" : " = " + text);
  }
  if (slot.is_address()) {
    if (from > event.at) return {};
    uint8_t words[16];
    drix::copy_elements<uint32_t>(words, buffer_ + event.at, 4);
    return name + " = " + drix::inspect::address_text(words);
  }
  const uint32_t first = (from - event.at) / slot.width;
  std::string text = name + '[' + std::to_string(first) + "..] =";
  for (uint32_t at = from; at < from + size; at += slot.width) {
    text += ' ' + number_text(drix::load<uint32_t>(buffer_ + at), nullptr);
  }
  return text;
}

}  // namespace quopa
