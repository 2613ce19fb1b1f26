// Binding to the platform's services: every combination of what a process may offer, and the race of first uses.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <barrier>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fib6_cfg.h"
#include "heap_watch.h"
#include "operations.h"
#include "platform_module.h"
#include "runtime/services.h"

namespace {

using drix::Services;

// A symbol once found keeps its module loaded, so what a process offers is tried in a process of its own.
template <class Body>
void in_own_process(Body body) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    body();
    std::fflush(nullptr);
    _exit(testing::Test::HasFailure() ? 1 : 0);
  }
  int status = -1;
  waitpid(child, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the child failed, status " << status;
}

// What a process offers besides itself.
class Platform {
 public:
  explicit Platform(const std::string &name)
      : handle_(name.empty() ? nullptr
                             : dlopen((MODULE_DIRECTORY "/" + name + ".so").c_str(), RTLD_NOW | RTLD_GLOBAL)) {
    if (!name.empty() && handle_ == nullptr) throw std::runtime_error(dlerror());
  }

  void *symbol(const char *name) const { return handle_ == nullptr ? nullptr : dlsym(handle_, name); }
  uint32_t flag_calls() const {
    return handle_ == nullptr ? 0 : reinterpret_cast<uint32_t (*)()>(symbol("module_flag_calls"))();
  }
  template <class Record>
  const Record &last(const char *getter) const {
    return *reinterpret_cast<const Record *(*)()>(symbol(getter))();
  }

 private:
  void *handle_;
};

struct Case {
  const char *module;
  bool platform_memory;
  bool logs;
};

// What each module offers is in this folder's CMakeLists.txt.
const Case kCases[] = {
    {"", false, false},
    {"platform_full", true, true},
    {"platform_flag_0", false, true},
    {"platform_flag_2", false, true},
    {"platform_no_flag", false, true},
    {"platform_no_free", false, true},
    {"platform_no_allocator", false, true},
    {"platform_no_log", true, false},
};

void use_services(const Case &c) {
  const Platform platform(c.module);
  Services unit;
  for (int use = 0; use < 2; ++use) {
    drix::svc_bind_mem(unit);
    void *block = drix::svc_alloc(unit, 24, "who_allocates");
    ASSERT_NE(block, nullptr);
    if (c.platform_memory) {
      const auto &call = platform.last<MemoryRecord>("module_last_memory");
      EXPECT_EQ(call.size, 24u);
      EXPECT_EQ(call.memory_module, 12u);
      EXPECT_STREQ(call.function, "who_allocates");
    }
    drix::svc_free(unit, block, "who_frees");
    if (c.platform_memory) {
      const auto &call = platform.last<MemoryRecord>("module_last_memory");
      EXPECT_EQ(call.block, block);
      EXPECT_EQ(call.memory_module, 12u);
      EXPECT_STREQ(call.function, "who_frees");
    }
  }
  drix::bind_memory_once(unit);  // as a thread that lost the race does
  EXPECT_EQ(unit.allocate == drix::heap_allocate, !c.platform_memory);
  EXPECT_EQ(unit.free == drix::heap_free, !c.platform_memory);
  EXPECT_EQ(platform.flag_calls(), platform.symbol("PXR_OsalMemUseFlagGet") == nullptr ? 0u : 1u);

  for (uint32_t use = 1; use <= 2; ++use) {
    drix::bind_log_once(unit);
    drix::svc_log(unit, drix::LogCode::out_of_memory, 77, "who_logs", "%s %u %d", "text", 5u, -6);
    EXPECT_EQ(unit.log_writer != nullptr, c.logs);
    if (!c.logs) continue;
    const auto &call = platform.last<LogRecord>("module_last_log");
    EXPECT_EQ(call.calls, use);
    EXPECT_EQ(call.module, &unit.log_module);
    EXPECT_EQ(call.level, 2u);
    EXPECT_EQ(call.code, 12u);
    EXPECT_STREQ(call.file, "");
    EXPECT_EQ(call.line, 77u);
    EXPECT_STREQ(call.function, "who_logs");
    EXPECT_STREQ(call.format, "%s %u %d");
    EXPECT_STREQ(call.text, "text 5 -6");
  }
}

TEST(Binding, TakesWhatTheProcessOffers) {
  for (const Case &c : kCases) {
    SCOPED_TRACE(c.module);
    in_own_process([&] { use_services(c); });
  }
}

TEST(Binding, IsNeverUndoneAndPerUnit) {
  in_own_process([] {
    Services early;
    drix::svc_bind_mem(early);
    drix::svc_bind_log(early);
    const Platform platform("platform_full");
    Services late;
    for (Services *unit : {&early, &late}) {
      drix::svc_bind_mem(*unit);
      drix::svc_bind_log(*unit);
    }
    EXPECT_EQ(early.allocate, drix::heap_allocate);
    EXPECT_EQ(early.log_writer, nullptr);
    EXPECT_NE(late.allocate, drix::heap_allocate);
    EXPECT_NE(late.log_writer, nullptr);
  });
}

TEST(Binding, HappensOnceInEachOfTheSixUnits) {
  in_own_process([] {
    constexpr int kThreads = 64;
    const Platform platform("platform_no_log");  // log lines would race in the module
    std::barrier start(kThreads);
    const auto come_first = [&] {
      for (const char *type : {"fib6_cfg_query_comm_param", "korBrokerFib6_pidStateMsg", "fib6Sync_tlv"}) {
        const Operations library = operations_of(type);
        uint64_t record[4] = {};
        uint8_t image[64];
        uint32_t length = sizeof image;
        start.arrive_and_wait();
        EXPECT_EQ(library.pack(record, image, &length), 0);
        library.unpack(image, length, record);
        EXPECT_EQ(library.pack(record, nullptr, &length), -1);
        library.unpack(nullptr, 0, record);
      }
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) threads.emplace_back(come_first);
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(platform.flag_calls(), 6u);
  });
}

// The library's own units in a process that offers nothing, and offers something only later.
TEST(Binding, ProcessWithoutPlatformUsesTheHeap) {
  in_own_process([] {
    const uint8_t image[] = {14, 0, 0, 0, 10, 0, 19, 0, 4, 0, 0, 0, 8, 0,   10,  0,  0,
                             0,  1, 0, 0, 0,  4, 0,  0, 0, 3, 0, 0, 0, 'a', 'b', 'c'};
    fib6_cfg_query_comm_param record;
    EXPECT_EQ(fib6_cfg_query_comm_param__unpack(image, 2, &record), sizeof record);
    EXPECT_EQ(fib6_cfg_query_comm_param__unpack(image, sizeof image, &record), sizeof record);
    const Platform platform("platform_full");
    ASSERT_EQ(record.f2Len, 3u);
    EXPECT_EQ(std::string(record.f2, record.f2 + 3), "abc");
    fib6_cfg_query_comm_param_free__unpacked(&record);
    EXPECT_EQ(record.f2, nullptr);
    EXPECT_EQ(platform.last<MemoryRecord>("module_last_memory").block, nullptr);

    uint8_t text[] = {'x'};
    fib6_cfg_query_fib6_item items[2] = {};
    const fib6_cfg_query_fib6_rec sent = {{1, 2, 3, sizeof text, text}, 2, items};
    std::vector<uint8_t> packed(2000);
    auto length = static_cast<uint32_t>(packed.size());
    ASSERT_EQ(fib6_cfg_query_fib6_rec__pack(&sent, packed.data(), &length), 0);
    for (std::size_t failing = 0; failing < 2 && heap_watch::kWorks; ++failing) {
      fib6_cfg_query_fib6_rec got;
      heap_watch::start(failing);
      fib6_cfg_query_fib6_rec__unpack(packed.data(), length, &got);
      EXPECT_EQ(heap_watch::stop(), (heap_watch::Counts{failing + 1, failing}));
      EXPECT_TRUE(got.f0.f3 == nullptr && got.f1 == nullptr);
    }
  });
}

}  // namespace
