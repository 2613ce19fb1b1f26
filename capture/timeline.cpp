#include "capture/timeline.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "describe/printable.h"

namespace capture {

std::vector<std::string> captures_in(const std::string &path) {
  namespace fs = std::filesystem;
  std::error_code error;
  if (!fs::is_directory(path, error)) return {path};
  std::vector<std::string> found;
  for (fs::directory_iterator entry(path, error), end; !error && entry != end; entry.increment(error)) {
    const std::string extension = entry->path().extension();
    if (extension == TRACE_FILE_SUFFIX || extension == ".pcap") found.push_back(entry->path());
  }
  if (error) throw BadCapture(path + ": " + error.message());
  if (found.empty()) throw BadCapture(path + ": no *" TRACE_FILE_SUFFIX " or *.pcap in this folder");
  std::sort(found.begin(), found.end());
  return found;
}

Timeline::Timeline(const std::vector<std::string> &paths, bool once_more) : once_more_(once_more) {
  for (const std::string &path : paths) {
    for (const std::string &file : captures_in(path)) {
      // What comes from a pipe cannot be opened again for its first message.
      Part part = {file, nullptr, nullptr, 0};
      if (!advance(part)) continue;
      if (std::filesystem::is_regular_file(file)) part.capture = nullptr;
      parts_.push_back(std::move(part));
    }
  }
  std::make_heap(parts_.begin(), parts_.end(), is_later);
}

// To the part's next message; opens the file first. False at the end.
bool Timeline::advance(Part &part) {
  try {
    if (part.capture == nullptr) part.capture = std::make_unique<File>(part.path);
    part.message = part.capture->next();
  } catch (const BadCapture &error) {
    complain(error.what());
    part.message = nullptr;
  }
  if (part.message != nullptr) part.time = part.message->time;
  return part.message != nullptr;
}

void Timeline::complain(const std::string &what) {
  whole_ = false;
  if (once_more_) return;
  std::cout.flush();
  std::cerr << "quopa: " << drix::describe::printable(what) << '\n';
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
  if (earliest.capture == nullptr && !advance(earliest)) {
    taken_ = false;
    parts_.pop_back();
    return next();
  }
  return earliest.message;
}

}  // namespace capture
