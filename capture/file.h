// A capture file, read from its begin to its end.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capture/blocks.h"
#include "capture/message.h"

namespace capture {

// pcap or pcapng of either byte order, of a link type that is left to users, whoever wrote it.
class File {
 public:
  explicit File(const std::string &path) : path_(path), blocks_(path) {  // "-" is standard input; throws BadCapture
    origin_.capture = path;
  }
  explicit File(std::span<const uint8_t> bytes) : blocks_(bytes) {}

  // The next message, notes too, valid until the next call; null at the end. Throws BadCapture where the file is
  // damaged.
  const Message *next();

 private:
  [[noreturn]] void fail(const std::string &what) const;

  std::string path_;
  Blocks blocks_;
  uint64_t packets_ = 0;
  Origin origin_;
  Message message_ = {};
};

}  // namespace capture
