// Calls that take long, and those that are left by a jump, an exception or the end of their thread.
#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csetjmp>
#include <mutex>
#include <thread>

#include "traced.h"

namespace {

std::mutex stay;
std::atomic<uint32_t> staying{0};

void stay_until_unlocked() {
  ++staying;
  const std::lock_guard<std::mutex> until_unlocked(stay);
}

uint32_t decode_slowly(const uint8_t *, uint32_t length, void *) {
  if (length > 4) stay_until_unlocked();  // it is no trial of the bus
  return 0;
}

void release(void *) {}

// Has a thread for each of so many files stay in its call; with all of them there, they go on.
template <class Call>
void stay_in_calls(uint32_t files, Call call) {
  stay.lock();
  std::vector<std::thread> threads;
  uint32_t number = 0;
  for (uint32_t file = 0; file < files; ++file) {
    threads.emplace_back([=] { call(file); });
    while (staying != file + 1) usleep(1000);
    for (uint32_t i = 0; i < kFileHolds; ++i) send_one(1, number++);
  }
  stay.unlock();
  for (std::thread &thread : threads) thread.join();
  send_one(3, 0);
}

std::jmp_buf out;

uint32_t decode_throwing(const uint8_t *, uint32_t length, void *) {
  if (length > 4) throw 1;
  return kDecoded;
}
uint32_t decode_jumping(const uint8_t *, uint32_t length, void *) {
  if (length > 4) std::longjmp(out, 1);
  return kDecoded;
}
uint32_t decode_ending(const uint8_t *, uint32_t length, void *) {
  if (length > 4) pthread_exit(nullptr);
  return kDecoded;
}

uint8_t payload[40];
DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(payload), kId, sizeof payload};

void send_again(uint32_t number) {
  fill_payload(payload, sizeof payload, 1, number);
  REQUIRE(DRIX_SendMsg(7, &message, 1) == -7);
}

// Deeper in the stack.
[[gnu::noinline]] void send_deep(uint32_t number) {
  std::array<volatile uint8_t, 4096> between;
  between[number] = 0;
  send_again(number + between[number]);
}

}  // namespace

// Threads that are interrupted inside the recorder hold the files that they write to. With all files held nothing can
// be written; what is lost is told when they are free.
void held(uint32_t files) {
  in_fault = stay_until_unlocked;
  stay_in_calls(files, [](uint32_t file) { send_faulting(2, file, 1); });
}

// Decoders hold nothing.
void slow_decoders(uint32_t files) {
  DRIX_RegIDLFuncHook(kOtherId, decode_slowly, release);
  stay_in_calls(files, [](uint32_t file) {
    fill_payload(payload, sizeof payload, 2, file);
    deliver(kOtherId, payload, sizeof payload);
  });
}

void left_decoders(uint32_t rounds) {
  DRIX_RegIDLFuncHook(1, decode_throwing, release);
  DRIX_RegIDLFuncHook(2, decode_jumping, release);
  DRIX_RegIDLFuncHook(3, decode_ending, release);
  uint8_t buffer[40];
  static uint32_t round;  // stays what it is when something jumps
  for (round = 0; round < rounds; ++round) {
    fill_payload(buffer, sizeof buffer, 2, round);
    try {
      deliver(1, buffer, sizeof buffer);
    } catch (int) {
    }
    if (setjmp(out) == 0) deliver(2, buffer, sizeof buffer);
    std::thread([&] { deliver(3, buffer, sizeof buffer); }).join();
    for (uint32_t i = 0; i < kFileHolds; ++i) send_one(1, round * kFileHolds + i);
  }
}

// What is sent from where a call has been left comes after it, and is no part of it.
void left_sends(uint32_t) {
  fill_payload(payload, sizeof payload, 1, 0);
  call_in_send([] { throw 1; });
  try {
    DRIX_SendMsg(7, &message, 1);
  } catch (int) {
  }
  send_again(1);
  fill_payload(payload, sizeof payload, 1, 2);
  call_in_send([] { std::longjmp(out, 1); });
  if (setjmp(out) == 0) DRIX_SendToMsg(7, &message, 1, 9);
  send_again(3);
  send_deep(4);
}
