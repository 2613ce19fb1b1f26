// What pcap and pcapng files are made of, in either byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace capture {

struct Packet {
  uint64_t time;    // nanoseconds since 1970
  uint32_t length;  // that it had before it was cut
  uint32_t link_type;
  std::span<const uint8_t> bytes;  // of the block that was looked at
};

// Takes the blocks of a file one after the other. Whatever they hold, nothing is read outside of them.
class BlockParser {
 public:
  enum class Found : uint8_t {
    packet,
    filler,      // a place in which the recorder may yet write
    other,       // a header, or what readers pass over
    unfinished,  // more bytes are needed
    damaged,
  };

  // Looks at the block that the bytes begin with.
  Found look(std::span<const uint8_t> bytes);

  // Of that block in bytes; of an unfinished one what is needed at least.
  std::size_t size() const { return size_; }
  const Packet &packet() const { return packet_; }
  const std::string &damage() const { return damage_; }

  // Whether a header told what kind of file it is.
  bool knows_format() const { return format_ != Format::unknown; }

 private:
  enum class Format : uint8_t { unknown, pcap, pcapng };

  struct Interface {
    uint32_t link_type;
    uint8_t resolution;  // as pcapng says it: of a unit of time, the power of 10 or, with the highest bit, of 2
    uint64_t begin;      // in seconds
  };

  Found need(std::size_t size);
  Found damage(std::string what);
  Found look_at_record();
  Found look_at_header();
  Found look_at_section();
  Found look_at_block();
  Found take_interface();
  Found take_packet(std::size_t at, uint32_t captured, uint32_t length, std::size_t end, const Interface &from,
                    uint64_t ticks);
  uint32_t half(std::size_t at) const;
  uint32_t word(std::size_t at) const;

  std::span<const uint8_t> bytes_;
  std::size_t size_ = 0;
  Packet packet_ = {};
  std::string damage_;
  Format format_ = Format::unknown;
  bool big_endian_ = false;
  std::vector<Interface> interfaces_;  // of the section
};

}  // namespace capture
