// What no buffer of the other tests is long enough for.
#include "inspect/walk.h"

#include <gtest/gtest.h>

#include "describe/catalog.h"
#include "runtime/wire.h"

namespace {

using drix::inspect::Reason;

// Elements of 1 KiB that share one table without slots.
TEST(Walk, RejectsVectorsFor4GiBOfMemory) {
  const drix::describe::Catalog catalog(
      drix::describe::parse_schema("# quopa schema 1\n"
                                   "p.e 0x1 fixed=8 compact=8..8 record=8 u8[1024]@0\n"
                                   "p.v 0x2 variable compact=8.. record=8 vector(e)@0\n"));
  constexpr uint32_t kMany = 1u << 22;
  constexpr uint32_t kVtable = 4, kTable = 12, kCount = 20, kWords = 24, kEmpty = kWords + 4 * kMany + 4;
  std::vector<uint8_t> buffer(kEmpty + 4);
  const auto put = [&]<class T>(uint32_t at, T value) { drix::store<T>(buffer.data() + at, value); };
  put(0, kTable);
  put(kVtable, uint16_t{6});
  put(kVtable + 4, uint16_t{4});
  put(kTable, kTable - kVtable);
  put(kTable + 4, kCount - (kTable + 4));
  put(kEmpty - 4, uint16_t{4});
  put(kEmpty, uint32_t{4});
  for (uint32_t at = kWords; at < kEmpty - 4; at += 4) put(at, kEmpty - at);
  for (const uint32_t count : {kMany - 1, kMany}) {
    put(kCount, count);
    const auto verdict =
        drix::inspect::walk(*catalog.find(2), buffer.data(), static_cast<uint32_t>(buffer.size()), nullptr);
    EXPECT_EQ(verdict.reason, count < kMany ? Reason::accepted : Reason::too_many_elements)
        << drix::inspect::explain(verdict);
  }
}

}  // namespace
