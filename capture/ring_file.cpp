#include "capture/ring_file.h"

#include <charconv>

#include "capture/format.h"
#include "capture/message.h"

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

namespace {

// PROCESS.NUMBER; the program may have blanks and dashes in its name.
std::string short_name(const RingFile &file) {
  return file.ring.substr(file.ring.rfind('-') + 1) + '.' + std::to_string(file.number);
}

}  // namespace

std::string short_path(const std::string &path) {
  const std::string name = std::filesystem::path(path).filename();
  const auto in_ring = ring_file(name);
  return in_ring ? path.substr(0, path.size() - name.size()) + short_name(*in_ring) : path;
}

std::string long_path(const std::string &path) {
  std::error_code error;
  if (std::filesystem::exists(path, error)) return path;
  const std::string name = std::filesystem::path(path).filename();
  const std::string folder = path.substr(0, path.size() - name.size());
  std::string found;
  for_each_ring_file(folder.empty() ? "." : folder, [&](const RingFile &file) {
    if (short_name(file) != name) return;
    const std::string whole = folder + file.ring + '.' + std::to_string(file.number) + TRACE_FILE_SUFFIX;
    if (!found.empty()) throw BadCapture(path + ": may be " + found + " or " + whole);
    found = whole;
  });
  return found.empty() ? path : found;
}

}  // namespace capture
