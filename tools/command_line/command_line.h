// The options of a process. Stands before the parser so that only one source file has to compile that.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

class CommandLine {
 public:
  CommandLine(const std::string &name, const std::string &description);
  CommandLine(const CommandLine &) = delete;
  CommandLine &operator=(const CommandLine &) = delete;
  ~CommandLine();

  // The value that stands in a variable is its option's default; parse() replaces it. Numbers are at least least and at
  // most most.
  void option(const std::string &name, std::string &value, const std::string &help);
  void option(const std::string &name, uint32_t &value, const std::string &help, uint32_t least = 0,
              uint32_t most = UINT32_MAX);
  void flag(const std::string &name, bool &value, const std::string &help);

  // Fills the variables. When the process has to end now, gives its exit status: after the help was printed, or one
  // line on standard error about what is wrong.
  std::optional<int> parse(int argc, char **argv);

 private:
  struct Parser;
  std::unique_ptr<Parser> parser_;
};
