// How a command's help looks: no wider than a terminal, and without what options the parser knows to go together.
#pragma once

#include <CLI/CLI.hpp>
#include <algorithm>
#include <sstream>
#include <string>

namespace quopa {

class Help : public CLI::Formatter {
 public:
  std::string make_option(const CLI::Option *option, bool is_positional) const override {
    std::string name = make_option_name(option, is_positional);
    if (!is_positional && option->get_type_size() != 0) name += ' ' + option->get_type_name();
    const bool is_needed = !is_positional && option->get_required();
    return entry(name, make_option_desc(option) + (is_needed ? "; must be given" : ""));
  }

  std::string make_subcommand(const CLI::App *command) const override {
    return entry(command->get_name(), command->get_description());
  }

  // Paragraphs are wrapped; lines that begin with a blank stay as they are.
  std::string make_footer(const CLI::App *app) const override {
    std::istringstream lines(app->get_footer());
    std::string text, paragraph;
    const auto end_paragraph = [&] {
      if (!paragraph.empty()) text += wrapped(paragraph, 0) + '\n';
      paragraph.clear();
    };
    for (std::string line; std::getline(lines, line);) {
      if (!line.empty() && line[0] != ' ') {
        paragraph += (paragraph.empty() ? "" : " ") + line;
        continue;
      }
      end_paragraph();
      text += line + '\n';
    }
    end_paragraph();
    return text;
  }

 private:
  static constexpr std::size_t kColumns = 80;
  static constexpr std::size_t kNames = 26;  // columns before descriptions

  static std::string entry(const std::string &name, const std::string &description) {
    std::string line = "  " + name;
    if (line.size() >= kNames) line += '\n' + std::string(kNames, ' ');
    if (line.size() < kNames) line.resize(kNames, ' ');
    return line + wrapped(description, kNames) + '\n';
  }

  // Broken at blanks; lines but the first begin with so many blanks.
  static std::string wrapped(std::string text, std::size_t indent) {
    std::string lines;
    const std::size_t room = kColumns - indent;
    while (text.size() > room) {
      const std::size_t last = text.rfind(' ', room);
      const std::size_t end = last == std::string::npos ? text.find(' ') : last;
      if (end == std::string::npos) break;
      lines += text.substr(0, end) + '\n' + std::string(indent, ' ');
      text.erase(0, end + 1);
    }
    return lines + text;
  }
};

}  // namespace quopa
