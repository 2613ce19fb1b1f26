// A process to be traced: traced SCENARIO [NUMBER]. Fails when it does not get from the bus what the bus gives. What it
// sends and delivers holds a stream's number, the number in that stream, and bytes that follow from it.
#include <endian.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "drix_bus.h"
#include "tiny_bus.h"

namespace {

constexpr uint32_t kId = 0x48CDB5CB;       // of fib6Sync.ipv6FwdUpdateMsg
constexpr uint32_t kOtherId = 0xE679B47A;  // of fib6Sync.balanceModeData
constexpr uint32_t kDecoded = 23;

void require(bool condition, int line) {
  if (condition) return;
  std::fprintf(stderr, "traced: line %d\n", line);
  std::_Exit(1);
}
#define REQUIRE(condition) require(condition, __LINE__)

// Some decoders tell of bad buffers.
uint32_t decode(const uint8_t *, uint32_t length, void *) { return length < 8 ? 0 : kDecoded; }
void release(void *) {}

std::vector<uint8_t> make_payload(uint32_t stream, uint32_t number, std::size_t length) {
  std::vector<uint8_t> payload(length);
  for (std::size_t i = 0; i < length; ++i) payload[i] = static_cast<uint8_t>(number + i);
  std::memcpy(payload.data(), &stream, 4);
  std::memcpy(payload.data() + 4, &number, 4);
  return payload;
}

void send(uint32_t id, uint32_t handle, uint32_t stream, uint32_t first, uint32_t count, std::size_t length,
          uint32_t destination = 0) {
  std::vector<std::vector<uint8_t>> payloads;
  std::vector<DrixSendDescriptor> descriptors;
  for (uint32_t i = 0; i < count; ++i) {
    payloads.push_back(make_payload(stream, first + i, length + 4 * i));
    descriptors.push_back(
        {reinterpret_cast<uintptr_t>(payloads[i].data()), id, static_cast<uint32_t>(payloads[i].size())});
  }
  errno = 0;
  const int32_t status = destination == 0 ? DRIX_SendMsg(handle, descriptors.data(), count)
                                          : DRIX_SendToMsg(handle, descriptors.data(), count, destination);
  REQUIRE(status == -static_cast<int32_t>(handle) && errno == kBusErrno);
}

void receive(uint32_t id, uint32_t stream, uint32_t number, std::size_t length) {
  const std::vector<uint8_t> payload = make_payload(stream, number, length);
  REQUIRE(deliver(id, payload.data(), static_cast<uint32_t>(payload.size())) == kDecoded);
}

void register_decoder(uint32_t id) {
  errno = 0;
  REQUIRE(DRIX_RegIDLFuncHook(id, decode, release) == static_cast<int32_t>(id % 5) && errno == kBusErrno);
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
  REQUIRE(deliver(kId, nullptr, 50) == kDecoded);
  send(kId, 7, 1, 1, 1, 8);
}

void many(uint32_t messages) {
  for (uint32_t i = 0; i < messages;) {
    const uint32_t batch = 1 + i % 300;
    send(kId, 0, 1, i, batch, 8 + i % 400);
    i += batch;
  }
}

void decoders(uint32_t count) {
  for (uint32_t id = 1; id <= count; ++id) register_decoder(id);
  for (uint32_t id = 1; id <= count; ++id) receive(id, 2, id - 1, 40);
}

void children(uint32_t) {
  send(kId, 0, 1, 0, 2, 40);
  for (uint32_t child = 0; child < 2; ++child) {
    const pid_t process = fork();
    if (process == 0) {
      if (child == 1) send(kId, 0, 3, 0, 3, 40);
      std::exit(0);
    }
    int status = 0;
    REQUIRE(waitpid(process, &status, 0) == process && status == 0);
  }
  REQUIRE(std::system("true") == 0);
  send(kId, 0, 1, 2, 1, 40);
}

void deleted(uint32_t) {
  send(kId, 0, 1, 0, 1, 40);
  REQUIRE(std::system("rm -f \"$QUOPA_TRACE_DIR\"/*") == 0);
  many(20000);
}

// Decoders that stay where they are hold the files that their messages are in. With all files held nothing can be
// written; what is lost is told when they are free.
std::mutex stay;
std::atomic<uint32_t> staying{0};
uint32_t decode_slowly(const uint8_t *, uint32_t length, void *) {
  if (length > 4) ++staying;  // it is no trial of the bus
  const std::lock_guard<std::mutex> until_unlocked(stay);
  return kDecoded;
}

void held(uint32_t files) {
  register_decoder(kId);
  DRIX_RegIDLFuncHook(kOtherId, decode_slowly, release);
  stay.lock();
  std::vector<std::thread> threads;
  uint32_t number = 0;
  for (uint32_t file = 0; file < files; ++file) {
    threads.emplace_back([=] { receive(kOtherId, 2, file, 20); });
    while (staying != file + 1) usleep(1000);
    // A little more than a file of the smallest ring holds.
    for (uint32_t i = 0; i < 470; ++i) send(kId, 0, 1, number++, 1, 20);
  }
  stay.unlock();
  for (std::thread &thread : threads) thread.join();
  send(kId, 0, 3, 0, 1, 20);
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

const std::map<std::string, void (*)(uint32_t)> kScenarios = {
    {"calls", calls},       {"odd", odd},         {"many", many}, {"decoders", decoders},
    {"children", children}, {"deleted", deleted}, {"held", held}, {"load", load}};

}  // namespace

int main(int argc, char **argv) {
  kScenarios.at(argc > 1 ? argv[1] : "")(argc > 2 ? static_cast<uint32_t>(std::atoi(argv[2])) : 0);
  return 0;
}
