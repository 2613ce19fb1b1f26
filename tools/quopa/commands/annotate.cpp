// quopa annotate: a buffer byte by byte.
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tools/quopa/byte_map.h"
#include "tools/quopa/command.h"
#include "tools/quopa/meaning.h"
#include "tools/quopa/packet.h"
#include "tools/quopa/verdict.h"

namespace quopa {
namespace {

using drix::inspect::Event;
using drix::inspect::Thing;
using drix::inspect::Verdict;

constexpr uint32_t kRowBytes = 8;
constexpr uint32_t kFoldedRows = 4;  // longer things are folded
constexpr std::size_t kColumns = 80;

bool wants_color(const std::string &color) {
  if (color != "auto") return color == "always";
  const char *no_color = std::getenv("NO_COLOR");
  return isatty(STDOUT_FILENO) == 1 && (no_color == nullptr || *no_color == '\0');
}

const char *color_of(Thing thing) {
  switch (thing) {
    case Thing::scalar:
    case Thing::elements:
      return "\033[32m";
    case Thing::unwritten:
    case Thing::unreferenced:
    case Thing::unreached:
      return "\033[2m";
    default:
      return "\033[36m";
  }
}

class Page {
 public:
  Page(const std::vector<uint8_t> &buffer, const Meaning &meaning, const AnnotateOptions &options)
      : buffer_(buffer),
        meaning_(meaning),
        full_(options.full),
        color_(wants_color(options.color)),
        position_width_(std::max<std::size_t>(4, std::to_string(buffer.size()).size())) {}

  void print(const Entry &entry, bool is_culprit) const {
    const Event &event = entry.event;
    const bool folded = !full_ && event.size > kFoldedRows * kRowBytes;
    const uint32_t shown = folded ? (kFoldedRows - 1) * kRowBytes : event.size;
    const char *color = is_culprit ? "\033[1;31m" : color_of(event.thing);
    for (uint32_t done = 0; done < shown; done += kRowBytes) {
      const uint32_t from = event.at + done;
      const uint32_t size = std::min(kRowBytes, shown - done);
      const std::string text = meaning_.text(entry, from, size);
      print_row(std::to_string(from), bytes_text(from, size), is_culprit ? text + "  <-- rejected" : text, color);
    }
    if (folded) {
      print_row("...", std::to_string(event.size - shown) + " bytes more", "--full shows them", color);
    }
  }

 private:
  std::string bytes_text(uint32_t from, uint32_t size) const {
    std::string text;
    for (uint32_t i = 0; i < size; ++i) {
      char byte[4];
      std::snprintf(byte, sizeof byte, i == 0 ? "%02x" : " %02x", buffer_[from + i]);
      text += byte;
    }
    return text;
  }

  // The meaning is wrapped at blanks, so that no line is wider than a terminal unless a word is.
  void print_row(const std::string &position, const std::string &bytes, std::string meaning, const char *color) const {
    constexpr std::size_t kBytesWidth = std::size_t{3} * kRowBytes;
    const std::size_t room = kColumns - position_width_ - 2 - kBytesWidth - 1;
    std::string line(position_width_ - std::min(position.size(), position_width_), ' ');
    line += position + "  " + bytes;
    while (!meaning.empty()) {
      const std::size_t end =
          meaning.size() <= room ? meaning.size() : std::min(meaning.rfind(' ', room), meaning.size());
      line.resize(std::max(line.size(), position_width_ + 2 + kBytesWidth), ' ');
      line += ' ' + meaning.substr(0, end);
      meaning.erase(0, meaning.find_first_not_of(' ', end));
      if (meaning.empty()) break;
      print_line(line, color);
      line.clear();
    }
    print_line(line, color);
  }

  void print_line(const std::string &line, const char *color) const {
    if (color_) std::cout << color << line << "\033[0m\n";
    if (!color_) std::cout << line << '\n';
  }

  const std::vector<uint8_t> &buffer_;
  const Meaning &meaning_;
  bool full_;
  bool color_;
  std::size_t position_width_;
};

}  // namespace

int annotate(const AnnotateOptions &options) {
  const Subject subject = read_subject(options.type, options.file, options.hex, options.labels, options.ipv6);
  const drix::describe::Type &type = *subject.type;
  const std::vector<uint8_t> &buffer = subject.bytes;
  ByteMap map(static_cast<uint32_t>(buffer.size()));
  const Verdict verdict = drix::inspect::walk(type, buffer.data(), static_cast<uint32_t>(buffer.size()), &map);
  if (!verdict.accepted()) map.add_culprit(verdict);
  const Meaning meaning(type, buffer.data(), subject.style);
  const Page page(buffer, meaning, options);
  for (const Entry &entry : map.in_order()) {
    const Event &event = entry.event;
    page.print(entry, !verdict.accepted() && event.at == verdict.culprit.at && event.thing == verdict.culprit.thing);
  }
  return report(verdict, subject);
}

}  // namespace quopa
