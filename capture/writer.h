// Messages as a capture, like the recorder's own.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "capture/message.h"

namespace capture {

class Writer {
 public:
  explicit Writer(const std::string &path);  // "-" is standard output; throws BadCapture, as the others
  Writer(const Writer &) = delete;
  Writer &operator=(const Writer &) = delete;
  ~Writer();

  // Who recorded them is written with the first of his messages, and again when another's come between.
  void write(const Message &message);

  // So that what was written can be read.
  void flush();

 private:
  void write_note(const Message &like, uint32_t handle, uint32_t thread, const std::string &text);
  void write_packet(const Message &message);
  void write_block(uint32_t type, const std::vector<uint8_t> &body);
  [[noreturn]] void fail() const;

  std::string path_;
  std::FILE *file_;
  std::string program_;  // of the message before
  uint32_t process_ = 0;
  std::string schema_;
  bool begun_ = false;
};

}  // namespace capture
