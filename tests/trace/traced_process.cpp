// Processes that are particular about what they share with others: stacks, signals, descriptors.
#include <fcntl.h>
#include <limits.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "traced.h"

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kStackFactor = 16;  // of what a sanitizer needs beside
#else
constexpr long kStackFactor = 1;
#endif

constexpr uint32_t kTurns = 10;  // of the ring, in files

uint8_t payload[40];
DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(payload), kId, sizeof payload};

uint32_t decode(const uint8_t *, uint32_t, void *) { return kDecoded; }
void release(void *) {}

void *use_little_stack(void *) {
  DRIX_RegIDLFuncHook(kOtherId, decode, release);
  for (uint32_t i = 0; i < kTurns * kFileHolds; ++i) DRIX_SendMsg(7, &message, 1);
  deliver(kOtherId, payload, sizeof payload);
  return nullptr;
}

void run_with_stack(std::size_t bytes) {
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  REQUIRE(pthread_attr_setstacksize(&attributes, bytes) == 0);
  pthread_t thread;
  REQUIRE(pthread_create(&thread, &attributes, use_little_stack, nullptr) == 0);
  pthread_join(thread, nullptr);
  pthread_attr_destroy(&attributes);
}

// With a page below that nobody may touch.
void handle_with_stack(std::size_t bytes) {
  const auto page = static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
  auto *const memory =
      static_cast<uint8_t *>(mmap(nullptr, page + bytes, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  mprotect(memory + page, bytes, PROT_READ | PROT_WRITE);
  stack_t stack = {};
  stack.ss_sp = memory + page;
  stack.ss_size = bytes;
  REQUIRE(sigaltstack(&stack, nullptr) == 0);
  struct sigaction action = {};
  action.sa_handler = [](int) { DRIX_SendMsg(7, &message, 1); };
  action.sa_flags = SA_ONSTACK;
  sigaction(SIGUSR1, &action, nullptr);
  for (uint32_t i = 0; i < kTurns * kFileHolds; ++i) std::raise(SIGUSR1);
}

std::atomic<bool> is_alive{false};

void limit_files() {
  send_one(1, 0);
  const rlimit limit = {4096, 4096};
  setrlimit(RLIMIT_FSIZE, &limit);
}

const char *folder() { return std::getenv("QUOPA_TRACE_DIR"); }

}  // namespace

// Handlers that send while the thread is recording, in a turn and elsewhere.
void signalled(uint32_t) {
  std::signal(SIGUSR1, [](int) {
    const int error = errno;
    send_one(5, 0);
    errno = error;
  });
  in_turn = [] { std::raise(SIGUSR1); };
  register_decoder(kOtherId);
  in_fault = [] {
    register_decoder(kOtherId);
    send_one(5, 1);
    send_one(5, 2, kOtherId);
  };
  send_one(1, 0);
  send_faulting(1, 1, 1);
  send_one(1, 2);
}

// A thread that makes a file although it is to end.
void cancelled(uint32_t) {
  fill_payload(payload, sizeof payload, 2, 0);
  pthread_t thread;
  pthread_create(
      &thread, nullptr,
      [](void *) -> void * {
        pthread_cancel(pthread_self());
        DRIX_SendMsg(7, &message, 1);
        is_alive = true;
        pthread_testcancel();
        return nullptr;
      },
      nullptr);
  void *result = nullptr;
  pthread_join(thread, &result);
  REQUIRE(is_alive && result == PTHREAD_CANCELED);
  send_one(1, 0);
}

// kibibytes: of the stack of a signal handler, beyond what the signal takes.
void small_stack(uint32_t kibibytes) {
  fill_payload(payload, sizeof payload, 2, 0);
  run_with_stack(static_cast<std::size_t>(kStackFactor * sysconf(_SC_THREAD_STACK_MIN)));
  handle_with_stack(static_cast<std::size_t>(sysconf(_SC_MINSIGSTKSZ) + kStackFactor * 1024 * kibibytes));
  send_one(1, 0);
}

void no_more_room(uint32_t messages) {
  limit_files();
  send_many(messages);
}

// A file of the process's own stands where standard error was.
void redirected(uint32_t messages) {
  limit_files();
  close(STDERR_FILENO);
  REQUIRE(open("data", O_RDWR | O_CREAT | O_TRUNC, 0600) == STDERR_FILENO);
  send_many(messages);
}

void moved(uint32_t messages) {
  const std::string elsewhere = std::string(folder()) + ".moved";
  send_one(1, 0);
  REQUIRE(rename(folder(), elsewhere.c_str()) == 0);
  send_many(messages);
  REQUIRE(rename(elsewhere.c_str(), folder()) == 0);
}

// A process that closes what it has not opened, and then opens much of its own.
void closed(uint32_t messages) {
  constexpr int kMost = 1024;
  struct stat wanted;
  struct stat found;
  REQUIRE(stat(folder(), &wanted) == 0);
  send_one(1, 0);
  for (int descriptor = 3; descriptor < kMost; ++descriptor) {
    if (fstat(descriptor, &found) == 0 && found.st_dev == wanted.st_dev && found.st_ino == wanted.st_ino) {
      REQUIRE(descriptor > 100 && fcntl(descriptor, F_GETFD) == FD_CLOEXEC);
    }
    close(descriptor);
  }
  int last = 0;
  while (last >= 0 && last < kMost - 20) last = open("/dev/zero", O_RDONLY);
  send_many(messages);
  REQUIRE(stat("/dev/zero", &wanted) == 0);
  for (int descriptor = 3; descriptor <= last; ++descriptor) {
    REQUIRE(fstat(descriptor, &found) == 0 && found.st_rdev == wanted.st_rdev);
  }
}
