// quopa __complete WORD...: what the last word may become, one a line; for the files of completions/. Nothing stands
// for a file, which the shell completes itself.
#include <CLI/CLI.hpp>
#include <iostream>
#include <sstream>

#include "describe/type.h"
#include "tools/quopa/command.h"
#include "tools/quopa/command_line.h"

namespace quopa {
namespace {

using Words = std::vector<std::string>;

void offer(const std::string &candidate, const std::string &start) {
  if (candidate.starts_with(start)) std::cout << candidate << '\n';
}

void offer_types(const std::string &start, bool packages) {
  std::string_view last;
  for (const drix::describe::Type *type : drix::describe::types()) {
    offer(type->name(), start);
    if (packages && type->package != last) offer(std::string(type->package), start);
    last = type->package;
  }
}

void offer_options(const CLI::App &command, const std::string &start) {
  for (const CLI::Option *option : command.get_options()) {
    for (const std::string &name : option->get_lnames()) offer("--" + name, start);
  }
}

// The values of an option whose help names them all, like compact|fixed, or which are types.
void offer_values(const CLI::Option &option, const std::string &start) {
  if (option.get_type_name() == "GLOB") return offer_types(start, false);
  std::istringstream values(option.get_type_name());
  if (option.get_type_name().find('|') == std::string::npos) return;
  for (std::string value; std::getline(values, value, '|');) offer(value, start);
}

// The option that a word is, if it has a value.
const CLI::Option *option_with_value(const CLI::App &command, const std::string &word) {
  const CLI::Option *option = word.starts_with('-') ? command.get_option_no_throw(word) : nullptr;
  return option != nullptr && option->get_items_expected_max() > 0 ? option : nullptr;
}

void complete_argument(const CLI::App &command, const Words &words) {
  std::size_t positionals = 0;
  const CLI::Option *open = nullptr;  // an option whose value comes next
  for (std::size_t i = 1; i + 1 < words.size(); ++i) {
    const bool is_value = open != nullptr;
    open = is_value ? nullptr : option_with_value(command, words[i]);
    positionals += !is_value && (words[i] == "-" || !words[i].starts_with('-'));
  }
  const std::string &start = words.back();
  if (open != nullptr) return offer_values(*open, start);
  if (start.starts_with('-')) return offer_options(command, start);
  if (positionals == 0 && command.get_option_no_throw("TYPE") != nullptr)
    offer_types(start, command.get_name() == "types");
}

}  // namespace

int complete(const CLI::App &app, Words words) {
  if (words.empty()) words.emplace_back();
  const auto is_public = [](const CLI::App *command) { return !command->get_group().empty(); };
  for (const CLI::App *command : app.get_subcommands(is_public)) {
    if (words.size() == 1) offer(command->get_name(), words[0]);
    if (words.size() > 1 && command->get_name() == words[0]) complete_argument(*command, words);
  }
  if (words.size() == 1 && words[0].starts_with('-')) offer_options(app, words[0]);
  return kGood;
}

}  // namespace quopa
