#include "command_line.h"

#include <getopt.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>

void CommandLine::option(const std::string &name, std::string &value, const std::string &help) {
  const auto take = [&value](const char *text) {
    value = text;
    return true;
  };
  options_.push_back({name, value.empty() ? " TEXT" : " TEXT=" + value, help, take});
}

void CommandLine::option(const std::string &name, uint32_t &value, const std::string &help, uint32_t least,
                         uint32_t most) {
  const auto take = [&value, least, most](const char *text) {
    char *end;
    const unsigned long long number = std::strtoull(text, &end, 0);
    if (!std::isdigit(static_cast<unsigned char>(*text)) || *end != '\0' || number < least || number > most)
      return false;
    value = static_cast<uint32_t>(number);
    return true;
  };
  const std::string range = std::to_string(least) + " - " + std::to_string(most);
  options_.push_back({name, " UINT:UINT in [" + range + "]=" + std::to_string(value), help, take});
}

void CommandLine::flag(const std::string &name, bool &value, const std::string &help) {
  options_.push_back({name, "", help, [&value](const char *) { return value = true; }});
}

std::optional<int> CommandLine::parse(int argc, char **argv) const {
  const auto wrong = [this](const std::string &what) {
    std::fprintf(stderr, "%s: %s\n", name_.c_str(), what.c_str());
    return 2;
  };
  std::vector<struct option> known;
  for (const Option &each : options_) {
    known.push_back({each.name.c_str() + 2, each.value.empty() ? no_argument : required_argument, nullptr, 0});
  }
  known.push_back({"help", no_argument, nullptr, 'h'});
  known.push_back({});
  opterr = 0;
  int index = 0;
  for (int found; (found = getopt_long(argc, argv, ":h", known.data(), &index)) != -1;) {
    const std::string word = argv[optind - 1];
    if (found == 'h') return print_help(), 0;
    if (found == ':') return wrong(word + " needs a value");
    if (found == '?') return wrong("unknown option " + word);
    const Option &option = options_[static_cast<std::size_t>(index)];
    if (!option.take(optarg)) return wrong(option.name + ": " + optarg + " is no" + option.value);
  }
  if (optind < argc) return wrong(std::string("unexpected argument ") + argv[optind]);
  return std::nullopt;
}

void CommandLine::print_help() const {
  std::printf("%s\nUsage: %s [OPTIONS]\n\nOptions:\n", description_.c_str(), name_.c_str());
  const auto print = [](const std::string &option, const std::string &help) {
    std::printf("  %-28s%s%s\n", option.c_str(), option.size() < 28 ? "" : "\n                              ",
                help.c_str());
  };
  print("-h,--help", "Print this help message and exit");
  for (const Option &each : options_) print(each.name + each.value, each.help);
}
