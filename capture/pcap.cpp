#include "capture/pcap.h"

#include <algorithm>

#include "capture/format.h"
#include "runtime/wire.h"

namespace capture {
namespace {

// Any file, written in little-endian order.
constexpr uint32_t kMicroseconds = 0xA1B2C3D4;
constexpr uint32_t kNanoseconds = 0xA1B23C4D;
constexpr std::size_t kFileHeader = 24;
constexpr std::size_t kRecordHeader = 16;
constexpr uint32_t kLinkTypeBits = 0x03FFFFFF;  // the others tell of checksums

// pcapng: every block begins with type and length and ends with the length.
constexpr std::size_t kFront = 8;
constexpr std::size_t kEdges = 12;
constexpr std::size_t kSectionHeader = 28;
constexpr std::size_t kInterfaceHeader = 20;
constexpr std::size_t kPacketFront = 28;
constexpr uint32_t kObsoletePacketBlock = 2;
constexpr uint32_t kSimplePacketBlock = 3;
constexpr uint32_t kEndOption = 0;
constexpr uint32_t kResolutionOption = 9;
constexpr uint32_t kBeginOption = 14;

// Longer ones are damage. Neither the recorder nor what else writes captures has longer packets.
constexpr uint32_t kLongestPacket = 256u << 10;
constexpr uint32_t kLongestBlock = 16u << 20;

constexpr uint8_t kMicrosecondsDefault = 6;
constexpr uint8_t kPowerOf2 = 0x80;
constexpr uint64_t kSecond = 1000000000;

// Whether nanoseconds can be worked out in 64 bits.
bool is_resolution(uint8_t resolution) {
  return (resolution & kPowerOf2) != 0 ? resolution < (kPowerOf2 | 64) : resolution < 20;
}

uint64_t nanoseconds(uint64_t ticks, uint8_t resolution) {
  if ((resolution & kPowerOf2) == 0) {
    uint64_t ticks_a_second = 1;
    for (uint8_t i = 0; i < resolution; ++i) ticks_a_second *= 10;
    const uint64_t rest = ticks % ticks_a_second;
    return ticks / ticks_a_second * kSecond +
           (ticks_a_second <= kSecond ? rest * (kSecond / ticks_a_second) : rest / (ticks_a_second / kSecond));
  }
  constexpr uint32_t kMostBits = 32;  // that leave room for the factor
  uint32_t bits = resolution & ~kPowerOf2;
  const uint64_t seconds = ticks >> bits;
  uint64_t rest = ticks - (seconds << bits);
  if (bits > kMostBits) {
    rest >>= bits - kMostBits;
    bits = kMostBits;
  }
  return seconds * kSecond + (rest * kSecond >> bits);
}

}  // namespace

uint32_t BlockParser::half(std::size_t at) const {
  const auto value = drix::load<uint16_t>(bytes_.data() + at);
  return big_endian_ ? __builtin_bswap16(value) : value;
}

uint32_t BlockParser::word(std::size_t at) const {
  const auto value = drix::load<uint32_t>(bytes_.data() + at);
  return big_endian_ ? __builtin_bswap32(value) : value;
}

BlockParser::Found BlockParser::need(std::size_t size) {
  size_ = size;
  return Found::unfinished;
}

BlockParser::Found BlockParser::damage(std::string what) {
  damage_ = std::move(what);
  return Found::damaged;
}

BlockParser::Found BlockParser::look(std::span<const uint8_t> bytes) {
  bytes_ = bytes;
  if (format_ == Format::pcap) return look_at_record();
  if (bytes.size() < kFront) return need(kFront);
  if (drix::load<uint32_t>(bytes.data()) == TRACE_SECTION_BLOCK) return look_at_section();
  return format_ == Format::unknown ? look_at_header() : look_at_block();
}

BlockParser::Found BlockParser::look_at_header() {
  for (const bool big_endian : {false, true}) {
    big_endian_ = big_endian;
    if (word(0) != kMicroseconds && word(0) != kNanoseconds) continue;
    if (bytes_.size() < kFileHeader) return need(kFileHeader);
    format_ = Format::pcap;
    interfaces_ = {{word(20) & kLinkTypeBits, word(0) == kMicroseconds ? kMicrosecondsDefault : uint8_t{9}, 0}};
    size_ = kFileHeader;
    return Found::other;
  }
  constexpr uint8_t kGzip[] = {0x1F, 0x8B};
  if (std::equal(std::begin(kGzip), std::end(kGzip), bytes_.begin())) {
    return damage("compressed by gzip; zcat FILE | quopa COMMAND - reads it");
  }
  return damage("neither pcap nor pcapng");
}

BlockParser::Found BlockParser::look_at_record() {
  if (bytes_.size() < kRecordHeader) return need(kRecordHeader);
  const uint32_t captured = word(8);
  size_ = kRecordHeader + captured;
  if (captured <= kLongestPacket && bytes_.size() < size_) return Found::unfinished;
  Interface from = interfaces_[0];
  from.begin = word(0);
  return take_packet(kRecordHeader, captured, word(12), size_, from, word(4));
}

BlockParser::Found BlockParser::look_at_section() {
  if (bytes_.size() < kSectionHeader) return need(kSectionHeader);
  big_endian_ = drix::load<uint32_t>(bytes_.data() + 8) != TRACE_BYTE_ORDER;
  if (word(8) != TRACE_BYTE_ORDER) return damage("a section in no known byte order");
  if (half(12) != 1) return damage("pcapng of version " + std::to_string(half(12)));
  format_ = Format::pcapng;
  interfaces_.clear();
  return look_at_block();
}

BlockParser::Found BlockParser::look_at_block() {
  const uint32_t type = word(0);
  const uint32_t length = word(4);
  const bool is_filler = type == TRACE_FILLER_BLOCK;
  if (length < kEdges || length % 4 != 0 || (length > kLongestBlock && !is_filler)) {
    return damage("a block of " + std::to_string(length) + " bytes");
  }
  size_ = length;
  // The second length of a filler does not count, for it is written apart from the first.
  if (is_filler) return Found::filler;
  if (bytes_.size() < length) return Found::unfinished;
  if (word(length - 4) != length) return damage("a block whose two lengths differ");
  switch (type) {
    case TRACE_INTERFACE_BLOCK:
      return take_interface();
    case TRACE_PACKET_BLOCK:
      if (length < kPacketFront + 4) return damage("a packet block of " + std::to_string(length) + " bytes");
      if (word(8) >= interfaces_.size()) return damage("a packet of an interface that is not described");
      return take_packet(kPacketFront, word(20), word(24), length - 4, interfaces_[word(8)],
                         uint64_t{word(12)} << 32 | word(16));
    case kObsoletePacketBlock:
    case kSimplePacketBlock:
      return damage("a packet block of type " + std::to_string(type) + ", which no trace has");
    default:
      return Found::other;
  }
}

BlockParser::Found BlockParser::take_interface() {
  if (size_ < kInterfaceHeader) return damage("an interface block of " + std::to_string(size_) + " bytes");
  Interface interface = {half(8), kMicrosecondsDefault, 0};
  const std::size_t end = size_ - 4;
  for (std::size_t at = 16; end - at >= 4 && half(at) != kEndOption;) {
    const std::size_t length = half(at + 2);
    const std::size_t room = end - at - 4;
    if (length > room) return damage("an option that is longer than its block");
    if (half(at) == kResolutionOption && length >= 1) interface.resolution = bytes_[at + 4];
    if (half(at) == kBeginOption && length >= 8) {
      const uint64_t first = word(at + 4);
      const uint64_t second = word(at + 8);
      interface.begin = big_endian_ ? first << 32 | second : second << 32 | first;
    }
    at += 4 + std::min((length + 3) / 4 * 4, room);
  }
  if (!is_resolution(interface.resolution)) {
    return damage("a unit of time of " + std::to_string(interface.resolution));
  }
  interfaces_.push_back(interface);
  return Found::other;
}

BlockParser::Found BlockParser::take_packet(std::size_t at, uint32_t captured, uint32_t length, std::size_t end,
                                            const Interface &from, uint64_t ticks) {
  if (captured > kLongestPacket) return damage("a packet of " + std::to_string(captured) + " bytes");
  if (captured > end - at) return damage("a packet that is longer than its block");
  packet_ = {from.begin * kSecond + nanoseconds(ticks, from.resolution), length, from.link_type,
             bytes_.subspan(at, captured)};
  return Found::packet;
}

}  // namespace capture
