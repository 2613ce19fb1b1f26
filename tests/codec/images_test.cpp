// Images written down byte by byte, as the wire must carry them.
#include <gtest/gtest.h>

#include "codec.h"
#include "fake_bus.h"
#include "fib6Sync.h"
#include "fib6_cfg.h"
#include "korBrokerFib6.h"
#include "operations.h"
#include "probe.h"

namespace {

using reference::Bytes;

enum class Layout { compact, fixed };

// bytes: hexadecimal, ".." for a byte that the layout leaves unwritten. The reference must write the image too, or its
// judgements are worth nothing.
void expect_image(const std::string &package, const std::string &message, Layout layout, const void *record,
                  const std::string &bytes) {
  const reference::Type &type = reference::find(package, message);
  SCOPED_TRACE(type.prefix() + " " + bytes);
  const Operations library = operations_of(type.prefix());
  Bytes expected;
  std::vector<bool> written;
  for (std::size_t i = 0; i < bytes.size(); i += bytes[i] == ' ' ? 1 : 2) {
    if (bytes[i] == ' ') continue;
    written.push_back(bytes[i] != '.');
    expected.push_back(written.back() ? static_cast<uint8_t>(std::stoul(bytes.substr(i, 2), nullptr, 16)) : 0);
  }
  auto length = static_cast<uint32_t>(expected.size());
  if (layout == Layout::compact) {
    Bytes packed(expected.size());
    EXPECT_EQ(library.pack(record, packed.data(), &length), 0);
    EXPECT_EQ(length, packed.size());
    EXPECT_EQ(packed, expected);
    EXPECT_EQ(reference::pack(type, record), expected);
  } else {
    std::vector<bool> marks;
    EXPECT_EQ(reference::build_fixed(type, record, &marks), expected);
    EXPECT_EQ(marks, written);
    fake_bus::bus() = {};
    EXPECT_EQ(library.sendsingle(1, record, 1, 0), 0);
    EXPECT_EQ(fake_bus::bus().calls.at(0).messages.at(0).bytes, expected);
  }
  Bytes decoded(type.record_size, 0xEE);
  library.unpack(expected.data(), length, decoded.data());
  EXPECT_EQ(reference::pack(type, decoded.data()), reference::pack(type, record));
  library.free_unpacked(decoded.data());
}

#define EXPECT_IMAGE(layout, package, message, bytes, ...)            \
  {                                                                   \
    const package##_##message record = {__VA_ARGS__};                 \
    expect_image(#package, #message, Layout::layout, &record, bytes); \
  }                                                                   \
  static_assert(true)

TEST(Images, AreWrittenAndReadByTheLibraryAndTheReference) {
  uint8_t abc[] = {'a', 'b', 'c'};
  probe_item items[] = {{7, 0}, {0, 1}};
  korBrokerFib6_ipv6FwdKey keys[] = {{1, 0, {}, 0, {}}};
  korBrokerFib6_nhp6GroupNode nodes[] = {{3, 0, 0, 0, 0, 0, 0, 0, 0, 0}};
  EXPECT_IMAGE(compact, fib6_cfg, query_comm_param,
               "0E000000 0A00 1300 0400 0000 0800 0A000000 01000000 04000000 03000000 616263", 1, 0, 3, abc);
  EXPECT_IMAGE(compact, fib6_cfg, query_fib6_key,
               "0C000000 0800 0C00 0400 0800 08000000 12000000 28000000  0A00 0400 0000 0000 0000 0A000000"
               "1600 1C00 0000 0400 0000 0000 0000 0000 0000 0000 0000 16000000 04000000 04000000"
               "00000000 00000000 00000000 00000000");
  EXPECT_IMAGE(fixed, probe, mixed,
               "04000000 ECFFFFFF 07000000 00 04000000 03000000 0A0B0C 0A00 1400 0400 0800 0900 ............", 7, 0,
               {10, 11, 12});
  EXPECT_IMAGE(compact, probe, tree,
               "0C000000 0800 1800 0400 0800 08000000 1C000000 04000000 02000000 20000000 2C000000"
               "0800 0800 0400 0000 08000000 05000000  0800 0800 0400 0000 08000000 07000000"
               "0800 0500 0000 0400 08000000 01",
               {5, 0}, 2, items);
  EXPECT_IMAGE(compact, korBrokerFib6, ipv6FwdDelMsg,
               "0C000000 0800 1000 0000 0400 08000000 04000000 01000000 12000000"
               "0E00 2B00 0400 0000 0800 0000 0C00 0E000000 01000000 08000000 18000000"
               "04000000 00000000 00000000 00000000 00000000 03000000 000000",
               0, 1, keys);
  EXPECT_IMAGE(compact, korBrokerFib6, nhp6GroupUpdateMsg,
               "0E000000 0A00 1800 0400 0800 0C00 0A000000 01000000 1E000000 04000000 01000000 32000000"
               "0E00 0800 0400 0000 0000 0000 0000 0E000000 02000000"
               "1800 0800 0400 0000 0000 0000 0000 0000 0000 0000 0000 0000 18000000 03000000",
               1, {2, 0, 0, 0, 0}, 1, nodes);
  EXPECT_IMAGE(compact, korBrokerFib6, srv6SrListUpdateMsg, "0C000000 0800 0400 0000 0000 08000000");
  EXPECT_IMAGE(fixed, korBrokerFib6, pidStateMsg,
               "04000000 D8FFFFFF 09000000 04000000 F0FFFFFF 01000000 02000000 03000000 0A00 1000 0400 0800 0C00 ...."
               "0800 2800 0400 0800 ........",
               9, {1, 2, 3});
  EXPECT_IMAGE(compact, fib6Sync, tlv, "0C000000 0800 0800 0000 0400 08000000 07000000", 0, 7);
  EXPECT_IMAGE(compact, fib6Sync, tlv, "0C000000 0800 0C00 0400 0800 08000000 FFFFFFFF FFFFFFFF", UINT32_MAX,
               UINT32_MAX);
  EXPECT_IMAGE(fixed, fib6Sync, tlv, "04000000 F4FFFFFF 02010000 07000000 0800 0C00 0400 0800", 258, 7);
  EXPECT_IMAGE(compact, fib6Sync, ipv6FwdKey,
               "12000000 0E00 3000 0400 0800 0D00 0C00 1100 0E000000 05000000 06000000 40 08000000 18000000"
               "04000000 01000000 02000000 03000000 04000000 03000000 070809",
               5, 6, {1, 2, 3, 4}, 64, {7, 8, 9});
  EXPECT_IMAGE(
      fixed, fib6Sync, ipv6FwdDelMsg,
      "04000000 9CFFFFFF 04000000 F4FFFFFF 0A000000 0B000000 0800 0C00 0400 0800 04000000 D0FFFFFF 05000000"
      "06000000 04000000 04000000 01000000 02000000 03000000 04000000 40 04000000 03000000 070809 0E00 3000 0400"
      "0800 0C00 2400 2500 ............ 0800 6400 0400 1C00",
      {10, 11}, {5, 6, {1, 2, 3, 4}, 64, {7, 8, 9}});
  EXPECT_IMAGE(fixed, fib6Sync, svcCtxMsg,
               "04000000 BCFFFFFF 04000000 F4FFFFFF 0A000000 0B000000 0800 0C00 0400 0800 04000000 08000000 01000000"
               "02000000 03000000 04000000 05000000 06000000 07000000 08000000 0800 4400 0400 1C00",
               {10, 11}, {1, 2, 3, 4, 5, 6, 7, 8});
  EXPECT_IMAGE(compact, fib6Sync, nhp6Group,
               "12000000 0E00 1000 0400 0000 0800 0000 0C00 0E000000 01000000 03000000 05000000", 1, 0, 3, 0, 5);
  EXPECT_IMAGE(compact, fib6Sync, ecmpCfg,
               "10000000 0C00 1200 0400 0600 0A00 0E00 0C000000 1000 07000000 16000000 1F000000"
               "0E00 0700 0400 0500 0000 0000 0600 0E000000 010203  0600 0500 0400 06000000 01",
               16, 7, {1, 2, 0, 0, 3}, {1});
  EXPECT_IMAGE(
      fixed, fib6Sync, ecmpCfg,
      "04000000 BCFFFFFF 1000 07000000 04000000 F4FFFFFF 01020000 03 ...... 0E00 0900 0400 0500 0600 0700 0800 ...."
      "04000000 F8FFFFFF 01 ...... 0600 0500 0400 ............ .... 0C00 4200 0400 0600 0A00 2A00 ........",
      16, 7, {1, 2, 0, 0, 3}, {1});
}

}  // namespace
