#include "capture/timeline.h"

#include <algorithm>
#include <filesystem>
#include <tuple>

#include "capture/ring_file.h"

namespace capture {

namespace {

// Where a capture comes among those of a folder: a ring's files as their numbers are.
std::tuple<std::string, uint64_t> place_of(const std::string &path) {
  const std::string name = std::filesystem::path(path).filename();
  const auto in_ring = ring_file(name);
  return in_ring ? std::tuple(in_ring->ring, in_ring->number) : std::tuple(name, uint64_t{0});
}

}  // namespace

std::vector<std::string> captures_in(const std::string &path) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!fs::is_directory(path, error)) return {long_path(path)};
  std::vector<std::string> found;
  for (fs::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
    const std::string extension = entry->path().extension();
    if (extension == TRACE_FILE_SUFFIX || extension == ".pcap") found.push_back(entry->path());
  }
  if (error) throw BadCapture(path + ": " + error.message());
  if (found.empty()) throw BadCapture(path + ": no *" TRACE_FILE_SUFFIX " or *.pcap in this folder");
  std::sort(found.begin(), found.end(), [](const auto &a, const auto &b) { return place_of(a) < place_of(b); });
  return found;
}

Timeline::Timeline(const std::vector<std::string> &paths, Complaint complain, Open open)
    : complain_(std::move(complain)), open_(std::move(open)) {
  for (const std::string &path : paths) {
    for (const std::string &file : captures_in(path)) {
      // What comes from a pipe cannot be opened again for its first message.
      Part part = {file, parts_.size(), nullptr, nullptr, 0};
      if (!advance(part)) continue;
      if (file != "-" && std::filesystem::is_regular_file(file)) part.file = nullptr;
      parts_.push_back(std::move(part));
    }
  }
  std::make_heap(parts_.begin(), parts_.end(), is_later);
}

// To the part's next message; opens the file first. False at the end.
bool Timeline::advance(Part &part) {
  try {
    if (part.file == nullptr) part.file = open_(part.path);
    part.message = part.file->next();
  } catch (const BadCapture &error) {
    is_whole_ = false;
    complain_(error.what());
    part.message = nullptr;
  }
  if (part.message != nullptr) part.time = part.message->time;
  return part.message != nullptr;
}

const Message *Timeline::next() {
  if (taken_) {
    if (advance(parts_.back())) {
      std::push_heap(parts_.begin(), parts_.end(), is_later);
    } else {
      parts_.pop_back();
    }
  }
  taken_ = !parts_.empty();
  if (parts_.empty()) return nullptr;
  std::pop_heap(parts_.begin(), parts_.end(), is_later);
  Part &earliest = parts_.back();
  if (earliest.file == nullptr && !advance(earliest)) {
    taken_ = false;
    parts_.pop_back();
    return next();
  }
  return earliest.message;
}

}  // namespace capture
