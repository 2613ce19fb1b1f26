// The messages of several captures in the order of time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/file.h"

namespace capture {

// Has one message of each file whose time has come. A file that is damaged ends where the damage is.
class Timeline {
 public:
  using Open = std::function<std::unique_ptr<Feed>(const std::string &path)>;

  // Files, and folders of which all captures are taken. Throws BadCapture when there are none.
  Timeline(
      const std::vector<std::string> &paths, Complaint complain,
      Open open = [](const std::string &path) { return std::make_unique<File>(path); });

  // The next message, notes too, valid until the next call; null at the end. Notes that a file begins with come where
  // it begins.
  const Message *next();

  // Whether no file was damaged, so far.
  bool is_whole() const { return is_whole_; }

 private:
  struct Part {
    std::string path;
    std::size_t order;           // among messages of the same time, as in a call that begins in one file of a ring
    std::unique_ptr<Feed> file;  // null before its time has come
    const Message *message;
    uint64_t time;  // of the message, or of the file's first
  };

  bool advance(Part &part);
  static bool is_later(const Part &a, const Part &b) { return a.time != b.time ? a.time > b.time : a.order > b.order; }

  Complaint complain_;
  Open open_;
  std::vector<Part> parts_;  // a heap, the earliest in front; the one that was taken last stands at the end
  bool taken_ = false;
  bool is_whole_ = true;
};

// Files as they are, a ring's also by their short paths; a folder's captures in the order of their names and, of a ring, numbers. Throws BadCapture.
std::vector<std::string> captures_in(const std::string &path);

}  // namespace capture
