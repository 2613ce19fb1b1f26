#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <string>
#include <thread>

#include "drix_services.h"

namespace {

drix_services_counters counters() {
  drix_services_counters now;
  drix_services_get_counters(&now);
  return now;
}

TEST(Services, CountTheBlocksOfAllThreads) {
  const uint64_t before = counters().blocks_live;
  std::array<void *, 4> kept{};
  std::array<std::thread, 4> threads;
  for (size_t i = 0; i < threads.size(); ++i)
    threads[i] = std::thread([&block = kept[i]] {
      for (uint32_t size = 0; size <= 1000; ++size) {
        PXR_OsalMemFree(block, 12, "test");
        block = PXR_OsalMemCacheAlloc(size, 12, "test");
        ASSERT_NE(block, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(block) % alignof(std::max_align_t), 0u);
        std::memset(block, 0xA5, size);
      }
    });
  for (std::thread &thread : threads) thread.join();
  EXPECT_EQ(counters().blocks_live - before, 4u);
  for (void *block : kept) PXR_OsalMemFree(block, 12, "test");
  EXPECT_EQ(counters().blocks_live, before);
}

TEST(Services, WriteOneLinePerLogCall) {
  const drix_services_log_module module = {"TAG", "MODULE", 0x6200};
  drix_services_counters before = counters();
  testing::internal::CaptureStderr();
  PXR_OsalLogWrite(&module, 2, 22, "", 77, "some_function", "[QUOPA]:bad\nvalue %u of %s", 5u, "x");
  PXR_OsalLogWrite(nullptr, 2, 12, nullptr, 78, nullptr, "%s", std::string(5000, 'y').c_str());
  std::string text = testing::internal::GetCapturedStderr();
  EXPECT_EQ(counters().log_lines - before.log_lines, 2u);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2) << text;
  EXPECT_NE(text.find("Z level=2 code=22 MODULE some_function(:77): [QUOPA]:bad value 5 of x\n"), text.npos) << text;
  EXPECT_NE(text.find(" level=2 code=12 - -(:78): yyy"), text.npos) << text;
  EXPECT_EQ(text.find('\0'), text.npos);
}

TEST(Services, LogWithoutAWordToErrno) {
  const int kept = dup(STDERR_FILENO);
  close(STDERR_FILENO);
  errno = ENOTTY;
  PXR_OsalLogWrite(nullptr, 2, 12, nullptr, 79, nullptr, nullptr);
  EXPECT_EQ(errno, ENOTTY);
  dup2(kept, STDERR_FILENO);
  close(kept);
}

}  // namespace
