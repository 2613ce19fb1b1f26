// quopa __complete WORD...: what the last word may become, one a line; for the files of completions/. ":files" stands for
// a file, which the shell completes itself, behind the = of an option that has one.
#include <fnmatch.h>

#include <CLI/CLI.hpp>
#include <iostream>
#include <set>
#include <sstream>

#include "describe/type.h"
#include "tools/quopa/command.h"
#include "tools/quopa/command_line.h"
#include "tools/quopa/input.h"
#include "tools/quopa/packet_term.h"

namespace quopa {
namespace {

using Words = std::vector<std::string>;
using drix::describe::Type;
using drix::inspect::Labels;

// What is typed, and what stands before it in the same word.
struct Start {
  std::string before;
  std::string text;
};

bool offer(const std::string &candidate, const Start &start) {
  const bool fits = candidate.starts_with(start.text);
  if (fits) std::cout << start.before << candidate << '\n';
  return fits;
}

void offer_files() { std::cout << ":files\n"; }

bool offer_types(const Start &start, bool packages) {
  std::string_view last;
  bool any = false;
  for (const Type *type : drix::describe::types()) {
    any |= offer(type->name(), start);
    if (packages && type->package != last) offer(std::string(type->package), start);
    last = type->package;
  }
  return any;
}

void offer_options(const CLI::App &command, const Start &start) {
  for (const CLI::Option *option : command.get_options()) {
    for (const std::string &name : option->get_lnames()) offer("--" + name, start);
  }
}

// What the words before say of an option, in either form.
Words values_of(const Words &words, const std::string &option) {
  Words values;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (words[i] == option) values.push_back(words[i + 1]);
    if (words[i].starts_with(option + '=')) values.push_back(words[i].substr(option.size() + 1));
  }
  return values;
}

Labels labels_of(const Words &words) {
  const Words files = values_of(words, "--labels");
  try {
    return files.empty() ? Labels() : read_labels(files.back());
  } catch (const BadInput &) {
    return {};
  }
}

// The members of the types that are chosen, of inner tables when the outer one is typed.
void offer_terms(const Words &words, const Start &start) {
  const Labels labels = labels_of(words);
  const Words globs = values_of(words, "--type");
  const auto is_wanted = [&](const Type &type) {
    return globs.empty() || std::any_of(globs.begin(), globs.end(), [&](const std::string &glob) {
             return fnmatch(glob.c_str(), type.name().c_str(), 0) == 0;
           });
  };
  std::set<std::string> members;
  for (const std::string &name : PacketTerm::names()) members.insert(name + '=');
  for (const Type *type : drix::describe::types()) {
    for (std::size_t i = 0; i < type->slots.size() && is_wanted(*type); ++i) {
      const Type *const inner = type->slots[i].inner;
      const std::string outer = labels.name(*type, i) + (inner == nullptr ? '=' : '.');
      members.insert(outer);
      for (std::size_t k = 0; inner != nullptr && k < inner->slots.size() && start.text.starts_with(outer); ++k) {
        members.insert(outer + labels.name(*inner, k) + '=');
      }
    }
  }
  members.erase(start.text);
  for (const std::string &member : members) offer(member, start);
}

// The values of an option whose help names them all, like compact|fixed, or which are files, types or terms.
void offer_values(const CLI::Option &option, const Words &words, const Start &start) {
  const std::string type = option.get_type_name();
  if (type == "GLOB") {
    offer_types(start, false);
  } else if (type == "TERM") {
    offer_terms(words, start);
  } else if (type == "RULE") {
    for (const char *rule : {"rejected", "failed", "changes=", "late="}) offer(rule, start);
    offer_terms(words, start);
  } else if (type == "FILE" || type == "OLD.schema" || type == "OUT.pcapng" || type == "LIBRARY") {
    offer_files();
  } else if (type.find('|') != std::string::npos) {
    std::istringstream values(type);
    for (std::string value; std::getline(values, value, '|');) offer(value, start);
  }
}

// The option that a word is, if it has a value.
const CLI::Option *option_with_value(const CLI::App &command, const std::string &word) {
  const CLI::Option *option = word.starts_with('-') ? command.get_option_no_throw(word) : nullptr;
  return option != nullptr && option->get_items_expected_max() > 0 ? option : nullptr;
}

void offer_positional(const CLI::App &command, std::size_t index, const Start &start) {
  const auto is_positional = [](const CLI::Option *option) { return option->get_positional(); };
  const std::vector<const CLI::Option *> positionals = command.get_options(is_positional);
  if (positionals.empty()) return;
  const CLI::Option &option = *positionals[std::min(index, positionals.size() - 1)];
  if (index >= positionals.size() && option.get_items_expected_max() <= 1) return;
  if (option.get_name() != "TYPE") return offer_files();
  const bool takes_packets = command.get_name() == "decode" || command.get_name() == "annotate";
  if (!offer_types(start, command.get_name() == "types") && takes_packets) offer_files();
}

void complete_argument(const CLI::App &command, const Words &words) {
  std::size_t positionals = 0;
  const CLI::Option *open = nullptr;  // an option whose value comes next
  for (std::size_t i = 1; i + 1 < words.size(); ++i) {
    const bool is_value = open != nullptr;
    open = is_value ? nullptr : option_with_value(command, words[i]);
    positionals += !is_value && (words[i] == "-" || !words[i].starts_with('-'));
  }
  const std::string &last = words.back();
  const std::size_t equals = last.starts_with("--") ? last.find('=') : std::string::npos;
  if (open != nullptr) return offer_values(*open, words, {"", last});
  if (equals != std::string::npos) {
    open = option_with_value(command, last.substr(0, equals));
    if (open != nullptr) offer_values(*open, words, {last.substr(0, equals + 1), last.substr(equals + 1)});
  } else if (last.starts_with('-')) {
    offer_options(command, {"", last});
  } else {
    offer_positional(command, positionals, {"", last});
  }
}

}  // namespace

int complete(const CLI::App &app, Words words) {
  if (words.empty()) words.emplace_back();
  const auto is_public = [](const CLI::App *command) { return !command->get_group().empty(); };
  for (const CLI::App *command : app.get_subcommands(is_public)) {
    if (words.size() == 1) offer(command->get_name(), {"", words[0]});
    if (words.size() > 1 && command->get_name() == words[0]) complete_argument(*command, words);
  }
  if (words.size() == 1 && words[0].starts_with('-')) offer_options(app, {"", words[0]});
  return kGood;
}

}  // namespace quopa
