// Images written down byte by byte, as the wire must carry them.
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

#include "codec.h"
#include "fake_bus.h"
#include "operations.h"

namespace {

using reference::Bytes;

enum class Layout { compact, fixed };

struct Image {
  const char *package;
  const char *message;
  Layout layout;
  const char *values;  // of scalars and array elements in member order, then the zeros that are left; see fill()
  const char *bytes;   // hexadecimal, ".." for a byte that the layout leaves unwritten
};

const Image kImages[] = {
    {"fib6_cfg", "query_comm_param", Layout::compact, "1 0 \"abc\"",
     "0E000000 0A00 1300 0400 0000 0800 0A000000 01000000 04000000 03000000 616263"},
    {"fib6_cfg", "query_comm_param", Layout::compact, "", "0E000000 0A00 0400 0000 0000 0000 0A000000"},
    {"fib6_cfg", "query_comm_rec", Layout::compact, "", "10000000 0C00 0400 0000 0000 0000 0000 0C000000"},
    {"probe", "mixed", Layout::fixed, "7 0 10 11 12",
     "04000000 ECFFFFFF 07000000 00 04000000 03000000 0A0B0C 0A00 1400 0400 0800 0900 ............"},
    {"probe", "tree", Layout::compact, "5 0 [ 7 0 , 0 1 ]",
     "0C000000 0800 1800 0400 0800 08000000 1C000000 04000000 02000000 20000000 2C000000"
     "0800 0800 0400 0000 08000000 05000000  0800 0800 0400 0000 08000000 07000000"
     "0800 0500 0000 0400 08000000 01"},
    {"fib6_cfg", "query_fib6_cond", Layout::compact, "",
     "1A000000 1600 1C00 0000 0400 0000 0000 0000 0000 0000 0000 0000 16000000 04000000 04000000"
     "00000000 00000000 00000000 00000000"},
    {"fib6_cfg", "query_fib6_key", Layout::compact, "",
     "0C000000 0800 0C00 0400 0800 08000000 12000000 28000000  0A00 0400 0000 0000 0000 0A000000"
     "1600 1C00 0000 0400 0000 0000 0000 0000 0000 0000 0000 16000000 04000000 04000000"
     "00000000 00000000 00000000 00000000"},
    {"fib6_cfg", "query_dfx_cond", Layout::compact, "", "10000000 0C00 0400 0000 0000 0000 0000 0C000000"},
    {"korBrokerFib6", "ipv6FwdDelMsg", Layout::compact, "0 [ 1 ]",
     "0C000000 0800 1000 0000 0400 08000000 04000000 01000000 12000000"
     "0E00 2B00 0400 0000 0800 0000 0C00 0E000000 01000000 08000000 18000000"
     "04000000 00000000 00000000 00000000 00000000 03000000 000000"},
    {"korBrokerFib6", "nhp6GroupUpdateMsg", Layout::compact, "1 2 0 0 0 0 [ 3 ]",
     "0E000000 0A00 1800 0400 0800 0C00 0A000000 01000000 1E000000 04000000 01000000 32000000"
     "0E00 0800 0400 0000 0000 0000 0000 0E000000 02000000"
     "1800 0800 0400 0000 0000 0000 0000 0000 0000 0000 0000 0000 18000000 03000000"},
    {"korBrokerFib6", "nhp6GroupUpdateMsg", Layout::compact, "",
     "0E000000 0A00 0800 0000 0400 0000 0A000000 12000000 0E00 0400 0000 0000 0000 0000 0000 0E000000"},
    {"korBrokerFib6", "srv6SrListUpdateMsg", Layout::compact, "", "0C000000 0800 0400 0000 0000 08000000"},
    {"korBrokerFib6", "pidStateMsg", Layout::fixed, "9 1 2 3",
     "04000000 D8FFFFFF 09000000 04000000 F0FFFFFF 01000000 02000000 03000000 0A00 1000 0400 0800 0C00 ...."
     "0800 2800 0400 0800 ........"},
    {"korBrokerFib6", "pidStateMsg", Layout::compact, "",
     "0C000000 0800 0800 0000 0400 08000000 0E000000 0A00 0400 0000 0000 0000 0A000000"},
    {"fib6Sync", "tlv", Layout::compact, "0 7", "0C000000 0800 0800 0000 0400 08000000 07000000"},
    {"fib6Sync", "tlv", Layout::compact, "", "0C000000 0800 0400 0000 0000 08000000"},
    {"fib6Sync", "tlv", Layout::compact, "4294967295 4294967295",
     "0C000000 0800 0C00 0400 0800 08000000 FFFFFFFF FFFFFFFF"},
    {"fib6Sync", "tlv", Layout::fixed, "258 7", "04000000 F4FFFFFF 02010000 07000000 0800 0C00 0400 0800"},
    {"fib6Sync", "ipv6FwdKey", Layout::compact, "5 6 1 2 3 4 64 7 8 9",
     "12000000 0E00 3000 0400 0800 0D00 0C00 1100 0E000000 05000000 06000000 40 08000000 18000000"
     "04000000 01000000 02000000 03000000 04000000 03000000 070809"},
    {"fib6Sync", "ipv6Fwd", Layout::fixed, "1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16 17",
     "04000000 BCFFFFFF 01000000 02000000 03000000 04000000 04000000 04000000 05000000 06000000 07000000 08 09"
     "0A00 0B000000 0C000000 0D000000 0E000000 0F00 1000 11000000 2000 4400 0400 0800 0C00 1000 2800 2900 2A00"
     "2C00 3000 3400 3800 3C00 3E00 4000"},
    {"fib6Sync", "ipv6FwdKey", Layout::fixed, "5 6 1 2 3 4 64 7 8 9",
     "04000000 D0FFFFFF 05000000 06000000 04000000 04000000 01000000 02000000 03000000 04000000 40 04000000"
     "03000000 070809 0E00 3000 0400 0800 0C00 2400 2500 ............"},
    {"fib6Sync", "ipv6FwdDelMsg", Layout::fixed, "10 11 5 6 1 2 3 4 64 7 8 9",
     "04000000 9CFFFFFF 04000000 F4FFFFFF 0A000000 0B000000 0800 0C00 0400 0800 04000000 D0FFFFFF 05000000"
     "06000000 04000000 04000000 01000000 02000000 03000000 04000000 40 04000000 03000000 070809 0E00 3000 0400"
     "0800 0C00 2400 2500 ............ 0800 6400 0400 1C00"},
    {"fib6Sync", "svcCtxMsg", Layout::fixed, "10 11 1 2 3 4 5 6 7 8",
     "04000000 BCFFFFFF 04000000 F4FFFFFF 0A000000 0B000000 0800 0C00 0400 0800 04000000 08000000 01000000"
     "02000000 03000000 04000000 05000000 06000000 07000000 08000000 0800 4400 0400 1C00"},
    {"fib6Sync", "nhp6Group", Layout::compact, "1 0 3 0 5",
     "12000000 0E00 1000 0400 0000 0800 0000 0C00 0E000000 01000000 03000000 05000000"},
    {"fib6Sync", "ecmpCfg", Layout::compact, "16 7 1 2 0 0 3 1",
     "10000000 0C00 1200 0400 0600 0A00 0E00 0C000000 1000 07000000 16000000 1F000000"
     "0E00 0700 0400 0500 0000 0000 0600 0E000000 010203  0600 0500 0400 06000000 01"},
    {"fib6Sync", "ecmpCfg", Layout::fixed, "16 7 1 2 0 0 3 1",
     "04000000 BCFFFFFF 1000 07000000 04000000 F4FFFFFF 01020000 03 ...... 0E00 0900 0400 0500 0600 0700 0800 ...."
     "04000000 F8FFFFFF 01 ...... 0600 0500 0400 ............ .... 0C00 4200 0400 0600 0A00 2A00 ........"},
    {"fib6Sync", "nhp6Key", Layout::fixed, "1", "04000000 F8FFFFFF 01000000 0600 0800 0400 ............"},
    {"fib6Sync", "nhp6Vpn", Layout::compact, "", "12000000 0E00 0400 0000 0000 0000 0000 0000 0E000000"},
};

// Fills a record from text: the values in member order, a byte string in quotes, a vector's elements in brackets and
// parted by commas; what the text leaves out is zero.
class Filler {
 public:
  Filler(const char *text, records::Arena &arena) : text_(text), arena_(arena) {}

  void fill(const reference::Type &type, uint8_t *record) {
    for (const reference::Slot &slot : type.slots) {
      if (!(text_ >> std::ws) || text_.peek() == ',' || text_.peek() == ']') return;
      if (slot.kind == reference::Kind::table) {
        fill(*slot.type, record + slot.member);
      } else if (slot.kind == reference::Kind::bytes) {
        std::string content;
        text_ >> content;
        point(slot, record, content.size() - 2, reinterpret_cast<const uint8_t *>(content.data()) + 1,
              content.size() - 2);
      } else if (slot.kind == reference::Kind::vector) {
        fill_vector(slot, record);
      } else {
        for (uint32_t i = 0; i < slot.count; ++i) fill_scalar(record + slot.member + i * slot.width, slot.width);
      }
    }
  }

 private:
  void fill_scalar(uint8_t *to, uint32_t width) {
    uint32_t value = 0;
    text_ >> value;
    const auto byte = static_cast<uint8_t>(value);
    const auto half = static_cast<uint16_t>(value);
    const void *values[] = {nullptr, &byte, &half, nullptr, &value};
    std::memcpy(to, values[width], width);
  }

  void fill_vector(const reference::Slot &slot, uint8_t *record) {
    Bytes elements;
    char mark;
    do {
      text_ >> mark;  // the opening bracket or a comma
      elements.resize(elements.size() + slot.type->record_size);
      fill(*slot.type, elements.data() + elements.size() - slot.type->record_size);
    } while ((text_ >> std::ws).peek() == ',');
    text_ >> mark;
    point(slot, record, elements.size() / slot.type->record_size, elements.data(), elements.size());
  }

  void point(const reference::Slot &slot, uint8_t *record, std::size_t count, const uint8_t *content,
             std::size_t size) {
    const auto length = static_cast<uint32_t>(count);
    uint8_t *block = arena_.allocate(size);
    std::memcpy(block, content, size);
    std::memcpy(record + slot.length_member, &length, sizeof length);
    std::memcpy(record + slot.member, &block, sizeof block);
  }

  std::istringstream text_;
  records::Arena &arena_;
};

struct Expected {
  Bytes bytes;
  std::vector<bool> written;
};

Expected parse(const char *text) {
  Expected expected;
  std::string digits;
  for (const char *c = text; *c != '\0'; ++c) {
    if (*c != ' ') digits += *c;
  }
  for (std::size_t i = 0; i < digits.size(); i += 2) {
    const bool written = digits[i] != '.';
    expected.written.push_back(written);
    expected.bytes.push_back(written ? static_cast<uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)) : 0);
  }
  return expected;
}

// The reference codec must write the images too, or its judgements are worth nothing.
TEST(Images, AreWrittenAndReadByTheLibraryAndTheReference) {
  for (const Image &image : kImages) {
    const reference::Type &type = reference::find(image.package, image.message);
    SCOPED_TRACE(type.prefix() + " of " + image.values);
    const Operations library = operations_of(type.prefix());
    const Expected expected = parse(image.bytes);
    records::Arena arena;
    Bytes record(type.record_size);
    Filler(image.values, arena).fill(type, record.data());

    if (image.layout == Layout::compact) {
      EXPECT_EQ(reference::pack(type, record.data()), expected.bytes);
      Bytes packed(expected.bytes.size());
      auto length = static_cast<uint32_t>(packed.size());
      EXPECT_EQ(library.pack(record.data(), packed.data(), &length), 0);
      EXPECT_EQ(length, packed.size());
      EXPECT_EQ(packed, expected.bytes);
    } else {
      std::vector<bool> written;
      EXPECT_EQ(reference::build_fixed(type, record.data(), &written), expected.bytes);
      EXPECT_EQ(written, expected.written);
      fake_bus::bus() = {};
      EXPECT_EQ(library.sendsingle(1, record.data(), 1, 0), 0);
      EXPECT_EQ(fake_bus::bus().calls.at(0).messages.at(0).bytes, expected.bytes);
    }

    Bytes decoded(type.record_size, 0xEE);
    EXPECT_EQ(library.unpack(expected.bytes.data(), static_cast<uint32_t>(expected.bytes.size()), decoded.data()),
              type.record_size);
    EXPECT_TRUE(records::first_difference(type, record.data(), decoded.data()).empty());
    library.free_unpacked(decoded.data());
  }
}

}  // namespace
