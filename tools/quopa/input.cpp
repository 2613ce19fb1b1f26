#include "tools/quopa/input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "inspect/digits.h"
#include "tools/quopa/command.h"

namespace quopa {
namespace {

struct Close {
  void operator()(std::FILE *file) const {
    if (file != stdin) std::fclose(file);
  }
};

// position: behind the name, as in ":LINE".
[[noreturn]] void fail(const std::string &path, const std::string &what, const std::string &position = {}) {
  throw BadInput(name_of(path) + position + ": " + what);
}

std::vector<uint8_t> parse_hex(const std::string &text, const std::string &path) {
  std::vector<uint8_t> bytes;
  std::size_t line = 1;
  std::size_t line_start = 0;
  int high = -1;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    const int digit = drix::inspect::hex_digit(c);
    if (digit < 0 && (high >= 0 || std::strchr(" \t\r\n", c) == nullptr || c == '\0')) {
      fail(path, "pairs of hexadecimal digits are wanted",
           ':' + std::to_string(line) + ':' + std::to_string(i - line_start + 1));
    }
    if (c == '\n') {
      ++line;
      line_start = i + 1;
    } else if (digit >= 0 && high < 0) {
      high = digit;
    } else if (digit >= 0) {
      bytes.push_back(static_cast<uint8_t>(high << 4 | digit));
      high = -1;
    }
  }
  if (high >= 0) fail(path, "the last pair of hexadecimal digits is cut off");
  return bytes;
}

}  // namespace

std::string read_file(const std::string &path) {
  const std::unique_ptr<std::FILE, Close> file(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
  if (file == nullptr) fail(path, std::strerror(errno));
  std::string contents;
  char block[1 << 16];
  while (const std::size_t count = std::fread(block, 1, sizeof block, file.get())) {
    contents.append(block, count);
    if (contents.size() > kLongestInput) fail(path, "longer than 16 MiB");
  }
  if (std::ferror(file.get()) != 0) fail(path, std::strerror(errno));
  return contents;
}

std::vector<uint8_t> read_buffer(const std::string &path, bool hexadecimal) {
  const std::string contents = read_file(path);
  if (hexadecimal) return parse_hex(contents, path);
  return {contents.begin(), contents.end()};
}

drix::inspect::Labels read_labels(const std::string &path) {
  if (path.empty()) return {};
  try {
    return drix::inspect::Labels(read_file(path));
  } catch (const drix::inspect::LabelError &error) {
    fail(path, error.what(), ':' + std::to_string(error.line));
  }
}

const drix::describe::Type &find_type(const std::string &name) {
  const drix::describe::Type *type = drix::describe::find(name);
  if (type == nullptr) throw BadUsage("no type \"" + name + "\"; \"quopa types\" lists them");
  return *type;
}

}  // namespace quopa
