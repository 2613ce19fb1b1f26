// The messages of several captures in the order of time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "capture/file.h"

namespace capture {

// Holds one message of each file whose time has come, and no other file open. A file that is damaged ends where the
// damage is; that is told on standard error.
class Timeline {
 public:
  // Files, and folders of which all captures are taken. Throws BadCapture when there are none. When they are read once
  // more, what is wrong with them has been told.
  explicit Timeline(const std::vector<std::string> &paths, bool once_more = false);

  // The next message, notes too, valid until the next call; null at the end. Notes that a file begins with are told
  // where it begins.
  const Message *next();

  // Whether no file was damaged, so far.
  bool is_whole() const { return whole_; }

 private:
  struct Part {
    std::string path;
    std::unique_ptr<File> capture;  // null before its time has come
    const Message *message;
    uint64_t time;  // of the message, or of the file's first
  };

  bool advance(Part &part);
  void complain(const std::string &what);
  static bool is_later(const Part &a, const Part &b) { return a.time > b.time; }

  std::vector<Part> parts_;  // a heap, the earliest in front; the one that was taken last stands at the end
  bool taken_ = false;
  bool once_more_;
  bool whole_ = true;
};

// Files as they are; a folder's captures in the order of their names. Throws BadCapture.
std::vector<std::string> captures_in(const std::string &path);

}  // namespace capture
