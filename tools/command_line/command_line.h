// The options of a process.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

class CommandLine {
 public:
  CommandLine(const std::string &name, const std::string &description) : name_(name), description_(description) {}

  // The value that stands in a variable is its option's default; parse() replaces it. Numbers are at least least and at
  // most most.
  void option(const std::string &name, std::string &value, const std::string &help);
  void option(const std::string &name, uint32_t &value, const std::string &help, uint32_t least = 0,
              uint32_t most = UINT32_MAX);
  void flag(const std::string &name, bool &value, const std::string &help);

  // Fills the variables. When the process has to end now, gives its exit status: after the help was printed, or, 2, one
  // line on standard error about what is wrong.
  std::optional<int> parse(int argc, char **argv) const;

 private:
  struct Option {
    std::string name;   // with its dashes
    std::string value;  // what there is to say of it; empty: takes none
    std::string help;
    std::function<bool(const char *text)> take;  // false when the text is no such value
  };

  void print_help() const;

  std::string name_, description_;
  std::vector<Option> options_;
};
