// The blocks of one file, fetched as they are looked at.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "capture/pcap.h"

struct stat;

namespace capture {

// For what is said of a capture: "standard input" for "-".
std::string name_of(const std::string &path);

// A regular file is open only while something is fetched from it, so that there may be any number of them.
//
// A file of a ring may be written to meanwhile, and no read promises an order between the bytes that it copies. So all
// of it is fetched twice: what is a filler in the first copy counts as one, whatever the second one has, and both count
// only when the file still has its name afterwards, which it gives up before it is written anew.
class Blocks {
 public:
  enum class Found : uint8_t {
    packet,
    filler,
    end,
    unfinished,  // the file ends within a block
    damaged,
    gone,  // it was written anew, or deleted
  };

  // As pread().
  using ReadAt = ssize_t (*)(int descriptor, void *to, std::size_t size, off_t position);

  // "-" is standard input. Throws BadCapture.
  explicit Blocks(const std::string &path, ReadAt read_at = ::pread);
  explicit Blocks(std::span<const uint8_t> bytes) : bytes_(bytes) {}
  Blocks(const Blocks &) = delete;
  Blocks &operator=(const Blocks &) = delete;
  ~Blocks();

  // What comes next, behind headers and what readers pass over. A packet is valid until the next call. Throws
  // BadCapture when the file cannot be read.
  Found look();
  const Packet &packet() const { return parser_.packet(); }
  const std::string &damage() const { return parser_.damage(); }
  bool knows_format() const { return parser_.knows_format(); }

  // Goes on behind the packet or filler that was found.
  void pass();

  // Where what comes next begins in the file.
  uint64_t position() const { return start_ + passed_; }

  // Goes to where a block begins, and has it fetched anew. Not of a stream.
  void go_to(uint64_t position);

 private:
  enum class Source : uint8_t { memory, stream, file, ring };

  std::span<const uint8_t> rest() const;
  std::span<const uint8_t> filler_in_first_copy() const;
  bool retry();
  bool fetch(std::size_t wanted);
  void fetch_from_stream(std::size_t wanted);
  void fetch_from_file(std::size_t wanted);
  void copy(int descriptor, std::size_t size, std::vector<uint8_t> &to) const;
  void start_at(uint64_t position);
  bool is_same(int status, const struct stat &now) const;
  [[noreturn]] void fail() const;

  Source source_ = Source::memory;
  std::string path_;
  ReadAt read_at_ = ::pread;
  int stream_ = -1;
  uint64_t device_ = 0;
  uint64_t inode_ = 0;
  bool gone_ = false;
  std::vector<uint8_t> copy_;
  std::vector<uint8_t> first_copy_;  // of a file of a ring
  std::span<const uint8_t> bytes_;   // what is at hand
  uint64_t start_ = 0;               // where that begins in the file
  uint64_t passed_ = 0;              // bytes from there on
  BlockParser parser_;
  BlockParser::Found found_ = BlockParser::Found::other;
  uint64_t fillers_ = 0;  // where those that were passed last begin
  int attempts_ = 0;      // to get past them
};

}  // namespace capture
