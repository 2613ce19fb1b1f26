#include "command_line.h"

#include <CLI/CLI.hpp>

struct CommandLine::Parser {
  CLI::App app;
};

CommandLine::CommandLine(const std::string &name, const std::string &description)
    : parser_(new Parser{CLI::App(description, name)}) {
  parser_->app.option_defaults()->always_capture_default();
  parser_->app.failure_message(
      [name](const CLI::App *, const CLI::Error &error) { return name + ": " + error.what() + "\n"; });
}

CommandLine::~CommandLine() = default;

void CommandLine::option(const std::string &name, std::string &value, const std::string &help) {
  parser_->app.add_option(name, value, help);
}

void CommandLine::option(const std::string &name, uint32_t &value, const std::string &help, uint32_t least,
                         uint32_t most) {
  parser_->app.add_option(name, value, help)->check(CLI::Range(least, most));
}

void CommandLine::flag(const std::string &name, bool &value, const std::string &help) {
  parser_->app.add_flag(name, value, help);
}

std::optional<int> CommandLine::parse(int argc, char **argv) {
  try {
    parser_->app.parse(argc, argv);
    return std::nullopt;
  } catch (const CLI::ParseError &error) {
    return parser_->app.exit(error);
  }
}
