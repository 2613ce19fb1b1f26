// quopa annotate: a buffer byte by byte.
#include <algorithm>
#include <cstdio>
#include <iostream>

#include "tools/quopa/byte_map.h"
#include "tools/quopa/command.h"
#include "tools/quopa/meaning.h"
#include "tools/quopa/packet.h"
#include "tools/quopa/terminal.h"
#include "tools/quopa/verdict.h"

namespace quopa {
namespace {

using drix::inspect::Event;
using drix::inspect::TablePath;
using drix::inspect::Thing;
using drix::inspect::Verdict;

constexpr uint32_t kRowBytes = 8;
constexpr uint32_t kFoldedRows = 4;      // longer things are folded
constexpr uint32_t kShownElements = 16;  // of a vector
constexpr std::size_t kColumns = 80;

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
    if (folded) print_fold(event.size - shown, "--full shows them", color);
  }

  void print_fold(uint32_t bytes, const char *what, const char *color) const {
    print_row("...", std::to_string(bytes) + " bytes more", what, color);
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

// Of vectors, whose elements may be as many as a buffer has words, the first few elements, unless all are wanted.
void print_all(const std::vector<Entry> &entries, const Verdict &verdict, const Page &page, bool full) {
  const auto is_culprit = [&](const Event &event) {
    return !verdict.accepted() && event.at == verdict.culprit.at && event.thing == verdict.culprit.thing;
  };
  const auto is_folded = [&](const auto &entry) {
    const Event &event = entry->event;
    const uint32_t element = event.thing == Thing::element_word ? event.element : entry->path.element;
    return !full && element >= kShownElements && element != TablePath::kNone && !is_culprit(event);
  };
  for (auto entry = entries.begin(); entry != entries.end();) {
    const uint32_t from = entry->event.at;
    uint32_t end = from;
    // Gaps in between are many, too.
    for (; entry != entries.end(); ++entry) {
      const auto next = std::next(entry);
      const bool is_gap = end > from && entry->path.outer == TablePath::kNone &&
                          (entry->event.thing == Thing::unreferenced || entry->event.thing == Thing::unreached);
      if (!is_folded(entry) && !(is_gap && next != entries.end() && is_folded(next))) break;
      end = std::max(end, entry->event.at + entry->event.size);
    }
    if (end > from) page.print_fold(end - from, "more elements; --full shows them", color_of(Thing::element_word));
    if (entry == entries.end()) return;
    page.print(*entry, is_culprit(entry->event));
    ++entry;
  }
}

}  // namespace

int annotate(const AnnotateOptions &options) {
  const Subject subject = read_subject(options.type, options.file, options.hex, options.labels, false);
  const drix::describe::Type &type = *subject.type;
  const std::vector<uint8_t> &buffer = subject.bytes;
  ByteMap map(static_cast<uint32_t>(buffer.size()));
  const Verdict verdict = drix::inspect::walk(type, buffer.data(), static_cast<uint32_t>(buffer.size()), &map);
  if (!verdict.accepted()) map.add_culprit(verdict);
  const Meaning meaning(type, buffer.data(), subject.style);
  print_all(map.in_order(), verdict, Page(buffer, meaning, options), options.full);
  return report(verdict, subject);
}

}  // namespace quopa
