// A process to be traced: traced SCENARIO [NUMBER].
#include "traced.h"

#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <thread>
#include <utility>

namespace {

constexpr int kOwnErrno = 5;

// Some decoders tell of bad buffers.
uint32_t decode(const uint8_t *, uint32_t length, void *) {
  if (length >= 8) REQUIRE(errno == kOwnErrno);
  return length < 8 ? 0 : kDecoded;
}
void release(void *) {}

std::size_t page_bytes() { return static_cast<std::size_t>(sysconf(_SC_PAGESIZE)); }

void send_messages(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination) {
  errno = kOwnErrno;
  const int32_t status = destination == 0 ? DRIX_SendMsg(handle, descriptors, count)
                                          : DRIX_SendToMsg(handle, descriptors, count, destination);
  REQUIRE(status == -static_cast<int32_t>(handle) && errno == kBusErrno && errno_found() == kOwnErrno);
}

void go_on_after_fault(int, siginfo_t *info, void *) {
  const int error = errno;
  auto *const page = reinterpret_cast<void *>(reinterpret_cast<uintptr_t>(info->si_addr) & ~(page_bytes() - 1));
  if (in_fault == nullptr || mprotect(page, page_bytes(), PROT_READ | PROT_WRITE) != 0) std::_Exit(1);
  in_fault();
  errno = error;
}

}  // namespace

void (*in_fault)() = nullptr;
void (*in_turn)() = nullptr;

extern "C" __attribute__((visibility("default"))) int renameat2(int old_folder, const char *old_name, int folder,
                                                                const char *name, unsigned flags) noexcept {
  if (in_turn != nullptr) std::exchange(in_turn, nullptr)();
  return static_cast<int>(syscall(SYS_renameat2, old_folder, old_name, folder, name, flags));
}

void require(bool condition, const char *file, int line) {
  if (condition) return;
  std::fprintf(stderr, "%s:%d\n", file, line);
  std::_Exit(1);
}

void fill_payload(uint8_t *bytes, std::size_t length, uint32_t stream, uint32_t number) {
  for (std::size_t i = 0; i < length; ++i) bytes[i] = static_cast<uint8_t>(number + i);
  std::memcpy(bytes, &stream, 4);
  std::memcpy(bytes + 4, &number, 4);
}

void send(uint32_t id, uint32_t handle, uint32_t stream, uint32_t first, uint32_t count, std::size_t length,
          uint32_t destination) {
  std::vector<std::vector<uint8_t>> payloads;
  std::vector<DrixSendDescriptor> descriptors;
  for (uint32_t i = 0; i < count; ++i) {
    payloads.emplace_back(length + 4 * i);
    fill_payload(payloads[i].data(), payloads[i].size(), stream, first + i);
    descriptors.push_back(
        {reinterpret_cast<uintptr_t>(payloads[i].data()), id, static_cast<uint32_t>(payloads[i].size())});
  }
  send_messages(handle, descriptors.data(), count, destination);
}

void send_one(uint32_t stream, uint32_t number, uint32_t id) {
  uint8_t payload[40];
  fill_payload(payload, sizeof payload, stream, number);
  DrixSendDescriptor descriptor = {reinterpret_cast<uintptr_t>(payload), id, sizeof payload};
  send_messages(0, &descriptor, 1, 0);
}

void receive(uint32_t id, uint32_t stream, uint32_t number, std::size_t length) {
  std::vector<uint8_t> payload(length);
  fill_payload(payload.data(), length, stream, number);
  errno = kOwnErrno;
  REQUIRE(deliver(id, payload.data(), static_cast<uint32_t>(length)) == kDecoded);
}

void register_decoder(uint32_t id) {
  errno = 0;
  REQUIRE(DRIX_RegIDLFuncHook(id, decode, release) == static_cast<int32_t>(id % 5) && errno == kBusErrno);
}

void send_many(uint32_t messages) {
  for (uint32_t i = 0; i < messages;) {
    const uint32_t batch = 1 + i % 300;
    send(kId, 0, 1, i, batch, 8 + i % 400);
    i += batch;
  }
}

void send_faulting(uint32_t stream, uint32_t number, uint32_t count) {
  struct sigaction action = {};
  action.sa_sigaction = go_on_after_fault;
  action.sa_flags = SA_SIGINFO;
  sigaction(SIGSEGV, &action, nullptr);
  auto *const page =
      static_cast<uint8_t *>(mmap(nullptr, page_bytes(), PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
  std::vector<DrixSendDescriptor> descriptors;
  for (uint32_t i = 0; i < count; ++i) {
    fill_payload(page + 40 * i, 40, stream, number + i);
    descriptors.push_back({reinterpret_cast<uintptr_t>(page + 40 * i), kId, 40});
  }
  mprotect(page, page_bytes(), PROT_NONE);
  REQUIRE(DRIX_SendMsg(7, descriptors.data(), count) == -7);
  munmap(page, page_bytes());
}

void calls(uint32_t) {
  register_decoder(kId);
  register_decoder(kOtherId);
  send(kId, 7, 1, 0, 1, 100);
  send(kOtherId, 8, 1, 1, 3, 20, 9);
  receive(kId, 2, 0, 181);
  receive(kOtherId, 2, 1, 13);
  REQUIRE(deliver(kId, nullptr, 5) == 0);
}

void odd(uint32_t) {
  register_decoder(kId);
  send(kId, 7, 1, 0, 1, 300000);
  DrixSendDescriptor bad[] = {{0, kId, 50}, {reinterpret_cast<uintptr_t>(bad), kId, 0x90000000}};
  REQUIRE(DRIX_SendMsg(3, bad, 2) == -3);
  REQUIRE(DRIX_SendMsg(3, nullptr, 2) == -3);
  REQUIRE(DRIX_SendMsg(3, bad, 0) == -3);
  errno = kOwnErrno;
  REQUIRE(deliver(kId, nullptr, 50) == kDecoded);
  send(kId, 7, 1, 1, 1, 8);
}

void many(uint32_t messages) { send_many(messages); }

void decoders(uint32_t count) {
  for (int round = 0; round < 2; ++round) {
    for (uint32_t id = 1; id <= count; ++id) register_decoder(id);
  }
  for (uint32_t id = 1; id <= count; ++id) receive(id, 2, id - 1, 40);
}

void deleted(uint32_t) {
  send_one(1, 0);
  REQUIRE(std::system("rm -f \"$QUOPA_TRACE_DIR\"/*") == 0);
  send_many(20000);
}

// Sends and receives in several threads for ever, and counts in a file what is done, little-endian.
void load(uint32_t longest) {
  constexpr uint32_t kThreads = 3;
  const int file = open("done", O_RDWR);
  auto *const done = static_cast<volatile uint32_t *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0));
  REQUIRE(done != MAP_FAILED);
  register_decoder(kId);
  std::vector<std::thread> threads;
  for (uint32_t stream = 0; stream < kThreads; ++stream) {
    threads.emplace_back([=] {
      for (uint32_t number = 0;;) {
        const uint32_t batch = 1 + number % 5;
        send(kId, 0, 2 * stream, number, batch, 8 + number % longest);
        for (uint32_t i = 0; i < batch; ++i) receive(kId, 2 * stream + 1, number + i, 8 + number % longest);
        number += batch;
        done[2 * stream] = htole32(number);
        done[2 * stream + 1] = htole32(number);
      }
    });
  }
  for (std::thread &thread : threads) thread.join();
}

int main(int argc, char **argv) {
  const std::map<std::string, Scenario *> scenarios = {{"calls", calls},
                                                       {"cancelled", cancelled},
                                                       {"children", children},
                                                       {"closed", closed},
                                                       {"decoders", decoders},
                                                       {"deleted", deleted},
                                                       {"fork_in_decoder", fork_in_decoder},
                                                       {"fork_in_thread", fork_in_thread},
                                                       {"held", held},
                                                       {"interrupted_child", interrupted_child},
                                                       {"left_decoders", left_decoders},
                                                       {"left_sends", left_sends},
                                                       {"load", load},
                                                       {"many", many},
                                                       {"moved", moved},
                                                       {"no_more_room", no_more_room},
                                                       {"odd", odd},
                                                       {"redirected", redirected},
                                                       {"signal", signalled},
                                                       {"slow_decoders", slow_decoders},
                                                       {"small_stack", small_stack},
                                                       {"turning_child", turning_child},
                                                       {"unknown_child", unknown_child},
                                                       {"unknown_child_in_send", unknown_child_in_send}};
  alarm(50);  // one that hangs ends with a signal
  scenarios.at(argc > 1 ? argv[1] : "")(argc > 2 ? static_cast<uint32_t>(std::atoi(argv[2])) : 0);
  return 0;
}
