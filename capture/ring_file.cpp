#include "capture/ring_file.h"

#include <charconv>

#include "capture/format.h"

namespace capture {

std::optional<RingFile> ring_file(const std::string &name) {
  const std::string_view suffix = TRACE_FILE_SUFFIX;
  if (!name.starts_with(TRACE_FILE_PREFIX) || !name.ends_with(suffix)) return std::nullopt;
  const std::string stem = name.substr(0, name.size() - suffix.size());
  const std::size_t dot = stem.rfind('.');
  if (dot == std::string::npos) return std::nullopt;
  uint64_t number = 0;
  const auto [end, error] = std::from_chars(stem.data() + dot + 1, stem.data() + stem.size(), number);
  if (error != std::errc() || end != stem.data() + stem.size()) return std::nullopt;
  return RingFile{stem.substr(0, dot), number};
}

}  // namespace capture
