#include "tools/quopa/input.h"

#include <algorithm>
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

constexpr char kBlanks[] = " \t\r";

// Behind the offset that a dump's lines begin with, as in "00000010: 0e00 0000"; 0 where there is none.
std::size_t data_of_dump(std::string_view line) {
  std::size_t at = std::min(line.find_first_not_of(kBlanks), line.size());
  if (line.substr(at).starts_with("0x")) at += 2;
  const std::size_t first = at;
  while (at < line.size() && drix::inspect::hex_digit(line[at]) >= 0) ++at;
  constexpr std::size_t kLeastDigits = 4;
  const bool is_offset = at - first >= kLeastDigits && line.substr(at).starts_with(": ");
  return is_offset ? at + 1 : 0;
}

// Adds the bytes of a line: pairs of digits with blanks or colons between, and of a dump what stands before the
// characters, which two blanks separate. Returns where it has something else, or npos.
std::size_t parse_hex_line(std::string_view line, std::vector<uint8_t> &bytes) {
  std::size_t at = data_of_dump(line);
  const bool is_dump = at > 0;
  bool behind_pair = false;
  while (at < line.size()) {
    const bool is_blank = std::string_view(kBlanks).find(line[at]) != std::string_view::npos;
    if (is_dump && behind_pair && line.substr(at).starts_with("  ")) return std::string_view::npos;
    const bool is_colon = line[at] == ':' && behind_pair && at + 1 < line.size();
    if (is_blank || is_colon) {
      behind_pair = false;
      ++at;
      continue;
    }
    const int high = drix::inspect::hex_digit(line[at]);
    if (high < 0) return at;
    const int low = at + 1 < line.size() ? drix::inspect::hex_digit(line[at + 1]) : -1;
    if (low < 0) return at + 1;
    bytes.push_back(static_cast<uint8_t>(high << 4 | low));
    behind_pair = true;
    at += 2;
  }
  return std::string_view::npos;
}

std::vector<uint8_t> parse_hex(std::string_view text, const std::string &path) {
  std::vector<uint8_t> bytes;
  for (std::size_t number = 1; !text.empty(); ++number) {
    const std::string_view line = text.substr(0, text.find('\n'));
    const std::size_t bad = parse_hex_line(line, bytes);
    if (bad != std::string_view::npos) {
      fail(path, "pairs of hexadecimal digits are wanted",
           ':' + std::to_string(number) + ':' + std::to_string(bad + 1));
    }
    text.remove_prefix(std::min(line.size() + 1, text.size()));
  }
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
  if (type == nullptr) {
    const drix::describe::Suggestion suggestion = drix::describe::suggested_type(name);
    throw BadUsage("no type \"" + name + '"' +
                   (suggestion.is_there() ? suggestion.text() : "; \"quopa types\" lists them"));
  }
  return *type;
}

}  // namespace quopa
