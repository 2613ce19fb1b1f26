// Every message type against the constants that were typed in for it, and against the reference codec on good, bad and
// worst input.
#include <gtest/gtest.h>

#include <algorithm>

#include "codec.h"
#include "fake_bus.h"
#include "fake_platform.h"
#include "fib6_cfg.h"
#include "judge.h"
#include "operations.h"
#include "probe.h"

namespace {

using judge::Subject;
using reference::Bytes;
using reference::Type;

// Runs a check for every message type under its name.
template <class Check>
void for_every_type(Check check) {
  for (const Type *type : every_type()) {
    SCOPED_TRACE(type->prefix());
    check(*type, Subject(*type));
  }
}

Bytes packed_by_library(const Subject &subject, const void *record) {
  Bytes buffer(70000);
  auto length = static_cast<uint32_t>(buffer.size());
  EXPECT_EQ(subject.library.pack(record, buffer.data(), &length), 0);
  buffer.resize(length);
  return buffer;
}

Bytes sent_by_library(const Subject &subject, const void *record) {
  fake_bus::bus() = {};
  EXPECT_EQ(subject.library.sendsingle(1, record, 1, 0), 0);
  return fake_bus::bus().calls.at(0).messages.at(0).bytes;
}

uint32_t read_u32(const Bytes &bytes, std::size_t at) {
  return bytes[at] | uint32_t{bytes[at + 1]} << 8 | uint32_t{bytes[at + 2]} << 16 | uint32_t{bytes[at + 3]} << 24;
}
uint32_t read_u16(const Bytes &bytes, std::size_t at) { return bytes[at] | uint32_t{bytes[at + 1]} << 8; }

// No number is zero; byte strings and vectors are empty.
struct NonZero {
  uint32_t last = 0x81828384;
  uint32_t number(uint32_t) { return ++last | 1; }
  records::Extent extent(records::Kind) { return {}; }
};

TEST(Codec, KeepsToTheListedConstants) {
  for_every_type([](const Type &type, const Subject &subject) {
    const reference::Constants &listed = type.listed;
    Bytes zero(type.record_size);
    Bytes set = zero;
    NonZero content;
    records::Arena arena;
    records::fill(type, set.data(), content, arena);
    const auto expect_listed = [](std::size_t actual, uint32_t constant, const char *what) {
      EXPECT_TRUE(constant == 0 || actual == constant) << what << " is " << actual << ", listed " << constant;
    };
    expect_listed(type.id, listed.id, "message ID");
    expect_listed(packed_by_library(subject, zero.data()).size(), listed.compact_zero, "compact length of zeros");
    expect_listed(packed_by_library(subject, set.data()).size(), listed.compact_set, "full compact length");
    // A record without zeros is written by a way of its own.
    EXPECT_EQ(packed_by_library(subject, set.data()), reference::pack(type, set.data()));
    EXPECT_EQ(subject.library.unpack(nullptr, 0, nullptr), type.record_size);

    const Bytes image = sent_by_library(subject, set.data());
    const uint32_t table = read_u32(image, 0);
    const uint32_t vtable = table - read_u32(image, table);
    expect_listed(read_u16(image, vtable), listed.vtable_length, "vtable length");
    if (!type.is_fixed()) return;
    expect_listed(image.size(), listed.fixed_length, "fixed length");
    expect_listed(vtable, listed.vtable_position, "vtable position");
    expect_listed(read_u16(image, vtable + 2), listed.table_size, "table size");
    for (std::size_t i = 0; i < type.listed_offsets.size(); ++i) {
      EXPECT_EQ(read_u16(image, vtable + 4 + 2 * i), type.listed_offsets[i]) << "slot " << i;
    }
  });
}

TEST(Codec, RefusesBadParametersWithTheRightLogLine) {
  for_every_type([](const Type &type, const Subject &subject) {
    Bytes record(type.record_size);
    // A good image, which the quick readers would take.
    Bytes buffer = type.is_fixed() ? reference::build_fixed(type, record.data()) : reference::pack(type, record.data());
    buffer.resize(1000);
    uint32_t length = 1000;
    fake_platform::reset();
    EXPECT_EQ(subject.library.pack(nullptr, buffer.data(), &length), -1);
    EXPECT_EQ(subject.library.pack(record.data(), buffer.data(), nullptr), -1);
    length = 5;
    EXPECT_EQ(subject.library.pack(record.data(), nullptr, &length), -1);
    EXPECT_TRUE(fake_platform::logs().empty());
    for (const uint32_t capacity : {1000u, 0xFFFFFFFFu}) {
      length = capacity;
      fake_platform::reset();
      EXPECT_EQ(subject.library.pack(record.data(), nullptr, &length), -1);
      EXPECT_EQ(length, capacity);
      const std::vector<reference::LogCall> expected = {
          {22, type.prefix() + "_pack", "[QUOPA]:Param invalid(null, " + std::to_string(capacity) + ", nonNull)"}};
      EXPECT_EQ(fake_platform::logs(), expected);
    }
    for (const uint32_t n : {0u, 3u, 0x80000000u, 0xFFFFFFFFu}) {
      EXPECT_EQ(judge::decode(subject, buffer.data(), n), "") << n;
      EXPECT_EQ(judge::last_outcome(), judge::Outcome::rejected);
    }
    EXPECT_EQ(judge::decode(subject, nullptr, 100), "");
    fake_platform::reset();
    EXPECT_EQ(subject.library.unpack(buffer.data(), 100, nullptr), type.record_size);
    const std::vector<reference::LogCall> expected = {
        {22, type.prefix() + "_unpack", "[QUOPA]:Param invalid(nonNull, 100, null)"}};
    EXPECT_EQ(fake_platform::logs(), expected);
    subject.library.free_unpacked(nullptr);
  });
}

// Also the shapes that the library's own types do not have.
TEST(Codec, ReadsWholeAndCutImagesOfEveryTypeAsTheReferenceDoes) {
  records::Random random(4);
  judge::Guarded memory(1 << 16);
  for_every_type([&](const Type &type, const Subject &subject) {
    records::Arena arena;
    Bytes record(type.record_size);
    records::fill_random(type, record.data(), random, {.zeros = 30}, arena);
    std::vector<Bytes> images = {reference::pack(type, record.data())};
    if (type.is_fixed()) images.push_back(reference::build_fixed(type, record.data()));
    for (const Bytes &image : images) {
      for (uint32_t n = 0; n <= image.size(); ++n) {
        ASSERT_EQ(judge::decode(subject, memory.place(image.data(), n), n), "") << "cut to " << n;
      }
      EXPECT_EQ(judge::last_outcome(), judge::Outcome::complete);
    }
  });
}

// Two images that come close to what the quick readers look for.
TEST(Codec, TakesNoTableForWhatItIsNot) {
  // The root table's vtable would stand before the buffer.
  judge::Guarded memory(1 << 10);
  for_every_type([&](const Type &type, const Subject &subject) {
    Bytes image(600);
    image[0] = 4;
    image[4] = static_cast<uint8_t>(4 + 2 * type.slots.size());
    EXPECT_EQ(judge::decode(subject, memory.place_at_start(image.data(), image.size()), 600), "");
  });
  // A vector's element does the same: the root table starts the buffer, and its vtable stands behind all.
  for (const auto &[package, vector, item] : {std::array{"fib6_cfg", "query_fib6_rec", "query_fib6_item"},
                                              std::array{"korBrokerFib6", "ipv6FwdUpdateMsg", "ipv6Fwd"}}) {
    const auto element_vtable = static_cast<uint8_t>(4 + 2 * reference::find(package, item).slots.size());
    Bytes early = {4, 0, 0, 0, 0x74, 0xFE, 0xFF, 0xFF, 4, 0, 0, 0, 1, 0, 0, 0, 4, 0, 0, 0, element_vtable};
    early.resize(600);
    early[400] = 8;
    early[402] = 12;
    early[406] = 4;
    const Subject subject(reference::find(package, vector));
    EXPECT_EQ(judge::decode(subject, memory.place_at_start(early.data(), early.size()), 600), "");
    EXPECT_EQ(judge::last_trace().allocations.size(), 1u);
  }
  // An element's vtable is all zero, its own length too; the array that stands where one would is none of it.
  Bytes empty = {12, 0, 0, 0, 8, 0, 8, 0, 0, 0, 4, 0, 8, 0, 0, 0, 4, 0, 0, 0, 1, 0, 0, 0, 14, 0, 0, 0};
  empty.resize(66, 7);
  std::fill_n(&empty[28], 22, uint8_t{0});
  empty[38] = 10;
  empty[42] = empty[46] = 4;
  const Subject key(reference::find("korBrokerFib6", "ipv6PathMtuDelMsg"));
  EXPECT_EQ(judge::decode(key, empty.data(), static_cast<uint32_t>(empty.size())), "");
  EXPECT_EQ(judge::last_outcome(), judge::Outcome::complete);
  // Slot 0, a table, is absent; what its entry of 0 leads to looks like one.
  const Bytes image = {12, 0, 0, 0, 8, 0, 12, 0, 0, 0, 8, 0, 8, 0, 0, 0, 4, 0, 4, 0,
                       8,  0, 0, 0, 4, 0, 8,  0, 8, 0, 0, 0, 1, 0, 0, 0, 2, 0, 0, 0};
  EXPECT_EQ(judge::decode(Subject(reference::find("fib6Sync", "nhp6GroupDelMsg")), image.data(), 40), "");
  EXPECT_EQ(judge::last_outcome(), judge::Outcome::complete);
}

// Memory is asked for up to the last size of 32 bits; beyond it the decoder gives up without a word.
TEST(Codec, GivesUpAVectorWhoseRecordsNeedMoreThan32Bits) {
  const Subject subject(reference::find("fib6_cfg", "query_fib6_rec"));
  constexpr uint32_t kFitting = UINT32_MAX / sizeof(fib6_cfg_query_fib6_item);
  for (const uint32_t count : {kFitting, kFitting + 1}) {
    Bytes image = {12, 0, 0, 0, 8, 0, 12, 0, 0, 0, 4, 0, 8, 0, 0, 0, 4, 0, 0, 0};  // up to the vector, which is slot 1
    image.resize(24 + std::size_t{4} * count);
    for (uint32_t i = 0; i < 4; ++i) image[20 + i] = static_cast<uint8_t>(count >> (8 * i));
    EXPECT_EQ(judge::decode(subject, image.data(), static_cast<uint32_t>(image.size()), 0), "");
    EXPECT_EQ(fake_platform::allocations().size(), count == kFitting ? 1u : 0u);
    EXPECT_EQ(fake_platform::logs().size(), count == kFitting ? 1u : 0u);
  }
}

// The builder refuses also what no exported operation gives it.
TEST(Codec, WritesAndReadsLongVectorsToTheByte) {
  for_every_type([](const Type &type, const Subject &subject) {
    if (type.is_fixed()) return;
    records::Random random(1);
    records::Arena arena;
    Bytes record(type.record_size);
    // Some members are zero in more elements than a byte counts. Runs of elements have one shape, others none in
    // common.
    const records::Mix mix = {.zeros = 60, .most_elements = 600, .always_most = true, .alike = 80};
    records::fill_random(type, record.data(), random, mix, arena);
    const Bytes expected = reference::pack(type, record.data());
    Bytes packed(expected.size());
    auto length = static_cast<uint32_t>(packed.size() - 1);
    EXPECT_EQ(subject.library.pack(record.data(), packed.data(), &length), -1);
    ++length;
    EXPECT_EQ(subject.library.pack(record.data(), packed.data(), &length), 0);
    EXPECT_EQ(packed, expected);
    EXPECT_EQ(judge::decode(subject, packed.data(), length), "");
  });
}

TEST(Codec, BuilderRefusesBadParameters) {
  const probe_named record = {};
  uint8_t buffer[24];
  fake_platform::reset();
  EXPECT_EQ(probe_named_build(buffer, 3, &record), 0u);
  EXPECT_EQ(probe_named_build(buffer, 24, nullptr), 0u);
  const std::vector<reference::LogCall> expected = {
      {22, "probe_named_pack", "[QUOPA]:Param invalid(nonNull, 3, nonNull)"},
      {22, "probe_named_pack", "[QUOPA]:Param invalid(nonNull, 24, null)"}};
  EXPECT_EQ(fake_platform::logs(), expected);
}

}  // namespace
