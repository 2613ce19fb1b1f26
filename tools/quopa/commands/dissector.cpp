// quopa dissector: what Wireshark and tshark need to show traces. The script is the same for all types; what it goes by
// is printed before it.
#include "tools/quopa/commands/dissector_script.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>

#include "inspect/labels.h"
#include "tools/quopa/command.h"
#include "tools/quopa/input.h"

namespace quopa {
namespace {

using drix::Kind;
using drix::describe::SlotInfo;
using drix::describe::Type;
using drix::inspect::Label;

const char *kind_name(Kind kind) {
  switch (kind) {
    case Kind::scalar:
      return "scalar";
    case Kind::array:
      return "array";
    case Kind::bytes:
      return "bytes";
    case Kind::table:
      return "table";
    case Kind::vector:
      break;
  }
  return "vector";
}

std::string id_text(uint32_t id) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", id);
  return text;
}

// Labels are words and letters of which none needs an escape.
void print_label(std::ostream &out, const Label &label) {
  out << ", name = \"" << label.name << '"';
  if (label.meaning.empty()) return;
  out << (label.is_flags ? ", flags = {" : ", values = {");
  for (const auto &[word, value] : label.meaning) {
    label.is_flags ? out << "{\"" << word << "\", " << value << "}, "
                   : out << '[' << value << "] = \"" << word << "\", ";
  }
  out << '}';
}

void print_type(std::ostream &out, const Type &type, const drix::inspect::Labels &labels) {
  out << "  [" << id_text(type.id) << "] = {name = \"" << type.name() << "\",\n";
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const SlotInfo &slot = type.slots[i];
    out << "    {\"" << kind_name(slot.kind) << "\", " << unsigned{slot.width} << ", " << slot.elements << ", "
        << (slot.inner == nullptr ? "nil" : id_text(slot.inner->id));
    if (const Label *label = labels.find(type, i)) print_label(out, *label);
    out << "},\n";
  }
  out << "  },\n";
}

void print(std::ostream &out, const drix::inspect::Labels &labels) {
  out << "-- Made by \"quopa dissector\" of quopa " QUOPA_VERSION
         "; for Wireshark's folder of personal Lua plugins, or\n"
         "-- tshark -X lua_script:FILE\n"
         "local types = {\n";
  for (const Type *type : drix::describe::types()) print_type(out, *type, labels);
  out << "}\n\n" << kDissectorScript;
}

}  // namespace

int dissector(const DissectorOptions &options) {
  const drix::inspect::Labels labels = read_labels(options.labels);
  if (options.output.empty() || options.output == "-") {
    print(std::cout, labels);
    return kGood;
  }
  std::ofstream file(options.output);
  if (file) print(file, labels);
  if (!file.flush()) throw BadInput(options.output + ": " + std::strerror(errno));
  return kGood;
}

}  // namespace quopa
