// The send operations and the registration, seen from the bus.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>

#include "codec.h"
#include "drix_message.hpp"
#include "fake_bus.h"
#include "fake_platform.h"
#include "heap_watch.h"
#include "judge.h"
#include "operations.h"
#include "probe.h"
#include "schema.h"

namespace {

using fake_bus::bus;

class Send : public testing::Test {
 protected:
  void SetUp() override { bus() = {}; }
};

// Records of a type side by side, as the send operations take them.
class Records {
 public:
  Records(const reference::Type &type, uint32_t count, records::Random &random)
      : type_(type), bytes_(count * type.record_size) {
    for (uint32_t i = 0; i < count; ++i) records::fill_random(type, at(i), random, {.zeros = 40}, arena_);
  }
  uint8_t *at(uint32_t i) { return bytes_.data() + i * type_.record_size; }
  std::vector<uint8_t> encoded(uint32_t i) {
    return type_.is_fixed() ? reference::build_fixed(type_, at(i)) : reference::pack(type_, at(i));
  }

 private:
  const reference::Type &type_;
  records::Arena arena_;
  std::vector<uint8_t> bytes_;
};

void expect_sent(const fake_bus::Call &call, const reference::Type &type, Records &records, uint32_t count,
                 uint32_t handle, std::optional<uint32_t> destination) {
  EXPECT_EQ(call.handle, handle);
  EXPECT_EQ(call.destination, destination);
  ASSERT_EQ(call.messages.size(), count);
  const uint8_t *next = nullptr;
  for (uint32_t i = 0; i < count; ++i) {
    const fake_bus::Message &message = call.messages[i];
    EXPECT_EQ(message.id, type.id);
    EXPECT_EQ(message.bytes, records.encoded(i)) << "record " << i;
    EXPECT_TRUE(next == nullptr || message.address == next) << "a gap before record " << i;
    next = message.address + message.bytes.size();
  }
}

TEST_F(Send, EveryTypeGoesOutAsItsImageWithTheRightDescriptor) {
  constexpr uint32_t kHandle = 0xABCD0123;
  records::Random random(1);
  for (const reference::Type *type : every_type()) {
    SCOPED_TRACE(type->prefix());
    const Operations send = operations_of(type->prefix());
    Records records(*type, 3, random);
    for (const int32_t status : {0, 17, -5}) {
      bus() = {.status = status};
      EXPECT_EQ(send.sendsingle(kHandle, records.at(0), 99, 0), status);
      EXPECT_EQ(send.sendsingle(kHandle, records.at(0), 0, 7), status);
      EXPECT_EQ(send.sendbatch(kHandle, records.at(0), 3, 0), status);
      EXPECT_EQ(send.sendbatch(kHandle, records.at(0), 1, 8), status);
      EXPECT_EQ(send.sendmsg(kHandle, records.at(0), 1), status);
      EXPECT_EQ(send.sendmsg(kHandle, records.at(0), 2), status);
      EXPECT_EQ(send.sendtomsg(kHandle, records.at(0), 1, 9), status);
      EXPECT_EQ(send.sendtomsg(kHandle, records.at(0), 3, 9), status);
      EXPECT_EQ(send.sendtomsg(kHandle, records.at(0), 2, 0), status);
      EXPECT_EQ(send.sendbatch(kHandle, records.at(0), 0, 0), status);
      const struct {
        uint32_t count;
        std::optional<uint32_t> destination;
      } expected[] = {{1, {}}, {1, 7}, {3, {}}, {1, 8}, {1, {}}, {2, {}}, {1, 9}, {3, 9}, {2, {}}, {0, {}}};
      ASSERT_EQ(bus().calls.size(), std::size(expected));
      for (std::size_t i = 0; i < std::size(expected); ++i) {
        expect_sent(bus().calls[i], *type, records, expected[i].count, kHandle, expected[i].destination);
      }
    }
  }
}

TEST_F(Send, NothingIsSentWithoutRecords) {
  for (const reference::Type *type : every_type()) {
    SCOPED_TRACE(type->prefix());
    const Operations send = operations_of(type->prefix());
    std::vector<uint8_t> record(type->record_size);
    EXPECT_EQ(send.sendsingle(1, nullptr, 1, 0), -1);
    EXPECT_EQ(send.sendbatch(1, nullptr, 2, 0), -1);
    EXPECT_EQ(send.sendmsg(1, nullptr, 1), -1);
    EXPECT_EQ(send.sendtomsg(1, nullptr, 2, 3), -1);
    EXPECT_EQ(send.sendmsg(1, record.data(), 0), -1);
    EXPECT_EQ(send.sendtomsg(1, record.data(), 0, 3), -1);
  }
  EXPECT_TRUE(bus().calls.empty());
}

// A probe_named without f0 takes 24 bytes and its byte string.
TEST_F(Send, VariableBatchFitsInItsAreaToTheByte) {
  std::vector<uint8_t> bytes(70000, 'x');
  const struct {
    std::vector<uint32_t> encoded;
    bool fits;
  } cases[] = {
      {{30000, 30000, 5536}, true},
      {{30000, 30000, 5537}, false},
      {{30000, 30000, 6000}, false},
      {{65536}, true},
      {{65537}, false},
      {{65536, 24}, false},  // the area is full before the last record
  };
  for (const auto &c : cases) {
    std::vector<probe_named> records;
    for (const uint32_t size : c.encoded) records.push_back({0, size - 24, bytes.data()});
    bus() = {};
    const auto count = static_cast<uint32_t>(records.size());
    EXPECT_EQ(probe_named__sendbatch(1, records.data(), count, 0), c.fits ? 0 : -1);
    ASSERT_EQ(bus().calls.size(), c.fits ? 1u : 0u);
    for (uint32_t i = 0; c.fits && i < count; ++i) EXPECT_EQ(bus().calls[0].messages[i].bytes.size(), c.encoded[i]);
  }
  // Of two records only the first can be read, and it fills the area.
  const probe_named full = {0, 65536 - 24, bytes.data()};
  judge::Guarded memory(sizeof full);
  const uint8_t *const last = memory.place(reinterpret_cast<const uint8_t *>(&full), sizeof full);
  EXPECT_EQ(probe_named__sendbatch(1, reinterpret_cast<const probe_named *>(last), 2, 0), -1);
  // One record that is sent alone needs no such area.
  for (const uint32_t size : {8000u, 12000u, 65537u}) {
    const probe_named alone = {0, size - 24, bytes.data()};
    bus() = {};
    EXPECT_EQ(probe_named__sendmsg(1, &alone, 1), 0);
    EXPECT_EQ(bus().calls.at(0).messages.at(0).bytes.size(), size);
  }
}

// The claimed sizes do not exist in memory: they must be refused before anything is read.
TEST_F(Send, SizesBeyond32BitsAreRefused) {
  probe_item item = {};
  uint8_t byte = 0;
  uint8_t buffer[64];
  const probe_tree counts[] = {{{}, 0x3FFFFFFF, &item}, {{}, 0x40000000, &item}, {{}, 0xFFFFFFFF, &item}};
  const probe_named lengths[] = {{0, 0xFFFFFFFF, &byte}, {1, 0xFFFFFFE4, &byte}};
  for (const probe_tree &tree : counts) {
    uint32_t length = sizeof buffer;
    EXPECT_EQ(probe_tree__sendsingle(1, &tree, 1, 0), -1);
    EXPECT_EQ(probe_tree__sendbatch(1, &tree, 1, 0), -1);
    EXPECT_EQ(probe_tree__pack(&tree, buffer, &length), -1);
    EXPECT_EQ(length, sizeof buffer);
  }
  for (const probe_named &named : lengths) {
    uint32_t length = 0xFFFFFFFF;
    EXPECT_EQ(probe_named__sendsingle(1, &named, 1, 0), -1);
    EXPECT_EQ(probe_named__pack(&named, buffer, &length), -1);
    EXPECT_EQ(length, 0xFFFFFFFF);
  }
  probe_every both = {};  // the sum of two lengths, not one alone, is beyond them
  both.f5Len = both.f8Len = 0x80000000;
  both.f5 = both.f8 = &byte;
  EXPECT_EQ(probe_every__sendsingle(1, &both, 1, 0), -1);

  // A batch asks for memory, which it does not get here, up to the last size of 32 bits and not beyond it.
  const probe_leaf leaf = {};
  const struct {
    std::function<int32_t(uint32_t)> send;
    uint32_t fitting;
  } batches[] = {
      {[&](uint32_t count) { return probe_leaf__sendbatch(1, &leaf, count, 0); },
       uint32_t{UINT32_MAX / (24 + sizeof(DrixSendDescriptor))}},
      {[&](uint32_t count) { return probe_named__sendbatch(1, lengths, count, 0); },
       uint32_t{(UINT32_MAX - 0x10000) / sizeof(DrixSendDescriptor)}},
  };
  for (const auto &batch : batches) {
    for (const uint32_t count : {batch.fitting, batch.fitting + 1, UINT32_MAX}) {
      if (count == batch.fitting && !heap_watch::kWorks) continue;
      heap_watch::start(/*failing=*/0);
      EXPECT_EQ(batch.send(count), -1);
      EXPECT_EQ(heap_watch::stop().allocations, count == batch.fitting ? 1u : 0u);
    }
  }
  EXPECT_TRUE(bus().calls.empty());
}

TEST_F(Send, HeapIsUsedOnceABatchAndNotAtAllForASingleFixedRecord) {
  if (!heap_watch::kWorks) GTEST_SKIP() << "the sanitizer owns the heap";
  const probe_leaf leaves[3] = {};
  const probe_named named[3] = {};
  const struct {
    const char *what;
    std::function<int32_t()> send;
    std::size_t allocations;
  } cases[] = {
      {"single fixed", [&] { return probe_leaf__sendsingle(1, leaves, 1, 0); }, 0},
      {"single variable", [&] { return probe_named__sendsingle(1, named, 1, 0); }, 1},
      {"fixed batch", [&] { return probe_leaf__sendbatch(1, leaves, 3, 0); }, 1},
      {"variable batch", [&] { return probe_named__sendbatch(1, named, 3, 0); }, 1},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    bus() = {.quiet = true};
    heap_watch::start();
    EXPECT_EQ(c.send(), 0);
    EXPECT_EQ(heap_watch::stop(), (heap_watch::Counts{c.allocations, c.allocations}));
    if (c.allocations == 0) continue;
    heap_watch::start(/*failing=*/0);
    EXPECT_EQ(c.send(), -1);
    heap_watch::stop();
    EXPECT_EQ(bus().quiet_calls, 1u) << "sent without memory";
  }
}

// A range whose size, cut to 32 bits, would be 1.
struct Endless : std::vector<fib6_cfg_query_comm_param> {
  std::size_t size() const { return SIZE_MAX / 2 + 2; }
};

TEST_F(Send, WhateverHoldsRecordsIsSentFromCppInOneCall) {
  fib6_cfg_query_comm_param records[3] = {};
  const std::vector<fib6_cfg_query_comm_param> two(2);
  bus() = {.status = 17};
  EXPECT_EQ(drix::send(5, records[0], 9), 17);
  EXPECT_EQ(drix::send(5, records, 7), 17);
  EXPECT_EQ(drix::send(5, two), 17);
  EXPECT_EQ(drix::send(5, drix::span(records, 2), 8), 17);
  EXPECT_EQ(drix::send(5, std::vector(two.begin(), two.begin())), -1);
  EXPECT_EQ(drix::send(5, Endless{two}), -1);
  std::vector<std::pair<std::size_t, uint32_t>> sent;
  for (const auto &call : bus().calls) sent.emplace_back(call.messages.size(), call.destination.value_or(0));
  EXPECT_EQ(sent, (decltype(sent){{1, 9}, {3, 7}, {2, 0}, {2, 8}}));
}

TEST_F(Send, ReceivedRecordsAreReleasedOnceWhereverTheyMove) {
  using Query = fib6_cfg_query_comm_param;
  uint8_t name[] = "red", buffer[64];
  uint32_t length = sizeof buffer;
  const Query query = {6, 254, 3, name};
  ASSERT_EQ(drix::message<Query>::pack(&query, buffer, &length), 0);
  fake_platform::reset();
  {
    drix::received<Query> first(buffer, length), last(buffer, length);
    drix::received<Query> moved(std::move(first));
    last = std::move(moved);
    const std::span<const uint8_t> view = drix::span(last->f2, last->f2Len);
    EXPECT_TRUE(std::equal(view.begin(), view.end(), name, name + 3));
    EXPECT_TRUE(first->f2 == nullptr && moved->f2 == nullptr);
  }
  EXPECT_EQ(fake_platform::frees().size(), 2u);
  EXPECT_EQ(fake_platform::live_blocks(), 0u);
  EXPECT_EQ((*drix::received<Query>(buffer, SIZE_MAX / 2 + 1 + length)).f0, 0u) << "a length cut to 32 bits";
  EXPECT_EQ(drix::span(static_cast<uint8_t *>(nullptr), 5).size(), 0u) << "the length of a record cut short";
}

struct Package {
  const char *name;
  const char *prefix;
};
constexpr Package kPackages[] = {
    {"fib6_cfg", "fib6_cfg"}, {"korBrokerFib6", "fib6"}, {"fib6Sync", "fib6_sync"}, {"probe", "probe"}};

TEST_F(Send, RegistrationGoesInOrderAndStopsAtTheFirstRefusal) {
  for (const Package &package : kPackages) {
    SCOPED_TRACE(package.name);
    const std::string prefix = package.prefix;
    const auto recv_init = reinterpret_cast<int32_t (*)()>(dlsym(RTLD_DEFAULT, (prefix + "_recv_init").c_str()));
    const auto send_init = reinterpret_cast<int32_t (*)()>(dlsym(RTLD_DEFAULT, (prefix + "_send_init").c_str()));
    const auto hook = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, (prefix + "__send_resource_clean").c_str()));
    ASSERT_TRUE(recv_init != nullptr && send_init != nullptr && hook != nullptr);

    const auto types = reference::types_of(package.name);
    for (std::size_t refused = 0; refused <= types.size(); ++refused) {
      bus() = {.refused_registration = refused, .refusal = -77};
      EXPECT_EQ(recv_init(), refused < types.size() ? -77 : 0);
      ASSERT_EQ(bus().registered.size(), std::min(refused + 1, types.size()));
      for (std::size_t i = 0; i < bus().registered.size(); ++i) {
        const Operations operations = operations_of(types[i]->prefix());
        EXPECT_EQ(bus().registered[i].id, types[i]->id) << types[i]->message;
        EXPECT_EQ(reinterpret_cast<void *>(bus().registered[i].decode), reinterpret_cast<void *>(operations.unpack));
        EXPECT_EQ(reinterpret_cast<void *>(bus().registered[i].release),
                  reinterpret_cast<void *>(operations.free_unpacked));
      }
    }
    for (const int32_t status : {0, 5, -9}) {
      bus() = {.status = status};
      EXPECT_EQ(send_init(), status);
      EXPECT_EQ(bus().hook, hook);
      bus().hook();
      EXPECT_TRUE(bus().calls.empty() && bus().registered.empty());
    }
  }
}

}  // namespace
