// A capture file, read from its begin to its end.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "capture/message.h"

struct pcap;
struct pcap_pkthdr;

namespace capture {

// pcap or pcapng of either byte order, of a link type that is left to users, whoever wrote it.
class File {
 public:
  explicit File(const std::string &path);  // "-" is standard input; throws BadCapture

  // Of what is open already, and is closed in the end; the path is for messages.
  File(std::FILE *file, const std::string &path);

  // The next message, notes too; null at the end. Throws BadCapture where the file is damaged.
  const Message *next();

 private:
  struct Close {
    void operator()(pcap *capture) const;
  };

  void open(std::FILE *file);
  int read_packet(pcap_pkthdr *&header, const uint8_t *&data);
  [[noreturn]] void fail(const std::string &what) const;

  std::string path_;
  std::unique_ptr<pcap, Close> capture_;
  uint64_t packets_ = 0;
  Origin origin_;
  Message message_ = {};
};

}  // namespace capture
