#include "describe/printable.h"

#include <algorithm>
#include <cstdint>
#include <iterator>

namespace drix::describe {
namespace {

constexpr std::size_t kLongest = 5000;  // bytes of text: a path and what is told of it

struct Range {
  uint32_t first, last;
};

constexpr Range kUnprintable[] = {
    {0x00, 0x1F},        // control characters
    {0x7F, 0x9F},        // more of them
    {0x061C, 0x061C},    // mark of direction
    {0x200B, 0x200F},    // of no width, marks of direction
    {0x2028, 0x202E},    // line ends, directions embedded and overridden
    {0x2060, 0x206F},    // of no width, directions isolated
    {0xD800, 0xDFFF},    // no characters
    {0xFEFF, 0xFEFF},    // of no width
    {0xE0000, 0xE0FFF},  // tags
    {0x110000, UINT32_MAX},
};

// The bytes of the UTF-8 character that the text begins with; 0 when it begins with none, or none to be shown.
std::size_t character(std::string_view text) {
  const auto lead = static_cast<uint8_t>(text[0]);
  const std::size_t size = lead < 0x80 ? 1 : lead < 0xC2 ? 0 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : lead < 0xF8 ? 4 : 0;
  if (size == 0 || size > text.size()) return 0;
  uint32_t code = size == 1 ? lead : lead & (0x7Fu >> size);
  for (std::size_t i = 1; i < size; ++i) {
    const auto next = static_cast<uint8_t>(text[i]);
    if ((next & 0xC0) != 0x80) return 0;
    code = code << 6 | (next & 0x3F);
  }
  if ((size == 3 && code < 0x800) || (size == 4 && code < 0x10000)) return 0;
  const bool is_hidden = std::any_of(std::begin(kUnprintable), std::end(kUnprintable),
                                     [=](const Range &range) { return code >= range.first && code <= range.last; });
  return is_hidden ? 0 : size;
}

}  // namespace

std::string printable(std::string_view text) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string shown;
  for (std::size_t at = 0; at < text.size();) {
    if (at >= kLongest) return shown + "...";
    const std::size_t size = character(text.substr(at));
    if (size > 0) {
      shown += text.substr(at, size);
    } else {
      const auto byte = static_cast<uint8_t>(text[at]);
      shown += {'\\', 'x', kDigits[byte >> 4], kDigits[byte & 15]};
    }
    at += std::max<std::size_t>(size, 1);
  }
  return shown;
}

std::string shortened(std::string_view text, std::size_t most) {
  return text.size() <= most ? std::string(text) : std::string(text.substr(0, most - 3)) + "...";
}

std::string quoted(std::string_view text) { return '"' + shortened(text) + '"'; }

}  // namespace drix::describe
