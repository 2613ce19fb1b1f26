// quopa types: what there is, and whether another version understands it.
#include <algorithm>
#include <iomanip>
#include <iostream>

#include "describe/compatibility.h"
#include "describe/schema.h"
#include "tools/quopa/command.h"
#include "tools/quopa/input.h"

namespace quopa {
namespace {

using drix::describe::Schema;
using drix::describe::SchemaSlot;
using drix::describe::SchemaType;

// All types, those of a package, or one.
Schema choose(const std::string &which) {
  Schema all = drix::describe::current_schema();
  if (which.empty()) return all;
  const drix::describe::Type *one = drix::describe::find(which);
  Schema chosen;
  std::copy_if(all.begin(), all.end(), std::back_inserter(chosen), [&](const SchemaType &type) {
    return one != nullptr ? type.name == one->name() : type.name.starts_with(which + '.');
  });
  if (chosen.empty()) throw BadUsage("no package or type \"" + which + "\"; \"quopa types\" lists them");
  return chosen;
}

std::string length_text(const SchemaType &type) {
  return type.fixed_length == 0 ? "variable" : std::to_string(type.fixed_length);
}

std::string id_text(const SchemaType &type) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", type.id);
  return text;
}

void print_list(const Schema &types) {
  std::cout << "TYPE                                           ID          SLOTS   LENGTH\n";
  for (const SchemaType &type : types) {
    std::cout << std::left << std::setw(46) << type.name << ' ' << id_text(type) << std::right << std::setw(7)
              << type.slots.size() << std::setw(9) << length_text(type) << '\n';
  }
}

std::string place_text(const drix::describe::ByPointer &value) {
  const std::string text = std::to_string(value.of_4);
  return value.of_4 == value.of_8 ? text : text + " or " + std::to_string(value.of_8);
}

void print_type(const SchemaType &type) {
  std::cout << type.name << ", message ID " << id_text(type) << '\n';
  if (type.fixed_length == 0) {
    std::cout << "  variable length, at least " << type.compact_least << " bytes\n";
  } else {
    std::cout << "  fixed layout " << type.fixed_length << " bytes, compact layout " << type.compact_least << " to "
              << type.compact_most << " bytes\n";
  }
  std::cout << "  record of " << place_text(type.record_size) << " bytes"
            << (type.record_size.of_4 == type.record_size.of_8 ? "" : ", with 32-bit or 64-bit pointers") << '\n';
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    const SchemaSlot &slot = type.slots[i];
    std::cout << "  f" << std::left << std::setw(4) << i << std::setw(40) << kind_text(slot) << "at "
              << place_text(slot.member) << '\n';
  }
}

// Names are words, so nothing needs an escape.
void print_json(const SchemaType &type) {
  const auto both = [](const drix::describe::ByPointer &value) {
    return '[' + std::to_string(value.of_4) + ',' + std::to_string(value.of_8) + ']';
  };
  std::cout << "{\"type\":\"" << type.name << "\",\"id\":" << type.id << ",\"fixed_length\":";
  type.fixed_length == 0 ? std::cout << "null" : std::cout << type.fixed_length;
  std::cout << ",\"compact_least\":" << type.compact_least << ",\"compact_most\":";
  type.compact_most == 0 ? std::cout << "null" : std::cout << type.compact_most;
  std::cout << ",\"record_size\":" << both(type.record_size) << ",\"slots\":[";
  for (std::size_t i = 0; i < type.slots.size(); ++i) {
    std::cout << (i == 0 ? "" : ",") << "{\"kind\":\"" << kind_text(type.slots[i])
              << "\",\"member\":" << both(type.slots[i].member) << '}';
  }
  std::cout << "]}\n";
}

int check(const std::string &path) {
  Schema before;
  try {
    before = drix::describe::parse_schema(read_file(path));
  } catch (const drix::describe::SchemaError &error) {
    throw BadInput(name_of(path) + ':' + std::to_string(error.line) + ": " + error.what());
  }
  const Schema now = drix::describe::current_schema();
  const auto differences = drix::describe::compare(before, now);
  bool compatible = true;
  for (const auto &difference : differences) {
    std::cout << difference.what << ": " << difference.consequence << '\n';
    compatible = compatible && difference.compatible;
  }
  if (differences.empty()) std::cout << now.size() << " types, no difference\n";
  return compatible ? kGood : kBad;
}

}  // namespace

int types(const TypesOptions &options) {
  if (!options.old_schema.empty()) return check(options.old_schema);
  const Schema chosen = choose(options.which);
  if (options.schema) {
    std::cout << to_text(chosen);
  } else if (options.json) {
    std::for_each(chosen.begin(), chosen.end(), print_json);
  } else if (chosen.size() == 1) {
    print_type(chosen.front());
  } else {
    print_list(chosen);
  }
  return kGood;
}

}  // namespace quopa
