#include "tools/quopa/input.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <span>

#include "capture/ring_file.h"
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

// No buffer begins as a capture does: its table would be further away than a buffer is long.
void expect_no_capture(const std::string &path, const std::string &begin) {
  capture::Blocks blocks(std::span(reinterpret_cast<const uint8_t *>(begin.data()), begin.size()));
  blocks.look();
  if (!blocks.knows_format()) return;
  throw BadUsage(name_of(path) + " is a capture; name one of its packets, as \"quopa trace\" numbers them: " + path +
                 "#N");
}

enum class Contents : uint8_t { buffer, other };

std::string read(const std::string &path, Contents what) {
  const std::unique_ptr<std::FILE, Close> file(path == "-" ? stdin : std::fopen(path.c_str(), "rb"));
  if (file == nullptr) fail(path, std::strerror(errno));
  std::string contents;
  char block[1 << 16];
  while (const std::size_t count = std::fread(block, 1, sizeof block, file.get())) {
    contents.append(block, count);
    if (what == Contents::buffer && contents.size() == count) expect_no_capture(path, contents);
    if (contents.size() > kLongestInput) fail(path, "longer than 16 MiB");
  }
  if (std::ferror(file.get()) != 0) fail(path, std::strerror(errno));
  return contents;
}

}  // namespace

std::string read_file(const std::string &path) { return read(path, Contents::other); }

std::vector<uint8_t> read_buffer(const std::string &path, bool hexadecimal) {
  const std::string contents = read(path, hexadecimal ? Contents::other : Contents::buffer);
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
  const std::string path = type == nullptr ? capture::long_path(name) : name;
  std::error_code error;
  if (type == nullptr && std::filesystem::exists(path, error)) {
    if (std::filesystem::is_directory(path, error)) {
      throw BadUsage(name + " is a folder; \"quopa trace\" names the packets of its captures in each line");
    }
    read(path, Contents::buffer);
    throw BadUsage(name + " is no message type; \"quopa types\" lists them");
  }
  if (type == nullptr) throw BadUsage("no type \"" + name + "\"; \"quopa types\" lists them");
  return *type;
}

}  // namespace quopa
