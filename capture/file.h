// A capture file, read from its begin to its end.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "capture/blocks.h"
#include "capture/message.h"

namespace capture {

// Where messages come from, in their order.
class Feed {
 public:
  virtual ~Feed() = default;

  // The next message, notes too, valid until the next call; null at the end. Throws BadCapture where it cannot go on.
  virtual const Message *next() = 0;
};

// pcap or pcapng of either byte order, of a link type that is left to users, whoever wrote it.
class File final : public Feed {
 public:
  explicit File(const std::string &path) : File(path, path) {}  // "-" is standard input; throws BadCapture
  File(const std::string &path, const std::string &name) : path_(path), blocks_(path) { origin_.capture = name; }
  explicit File(std::span<const uint8_t> bytes) : blocks_(bytes) {}

  const Message *next() override;

 private:
  [[noreturn]] void fail(const std::string &what) const;

  std::string path_;
  Blocks blocks_;
  uint64_t packets_ = 0;
  Origin origin_;
  Message message_ = {};
};

}  // namespace capture
