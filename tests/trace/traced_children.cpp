// Processes that make others, at every moment.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csetjmp>
#include <csignal>
#include <cstdlib>
#include <thread>

#include "traced.h"

namespace {

void wait_for(pid_t process) {
  int status = 0;
  REQUIRE(waitpid(process, &status, 0) == process && status == 0);
}

pid_t process = 0;

uint32_t decode_forking(const uint8_t *, uint32_t length, void *) {
  if (length > 4) process = fork();
  return kDecoded;
}
void release(void *) {}

std::atomic<bool> is_in_turn{false};
std::atomic<bool> may_go_on{false};
std::jmp_buf out;

// The child goes on with what its parent was doing.
void fork_and_wait() {
  process = fork();
  if (process != 0) wait_for(process);
}

}  // namespace

void children(uint32_t) {
  send(kId, 0, 1, 0, 2, 40);
  for (uint32_t child = 0; child < 2; ++child) {
    process = fork();
    if (process == 0) {
      if (child == 1) send(kId, 0, 3, 0, 3, 40);
      std::exit(0);
    }
    wait_for(process);
  }
  REQUIRE(std::system("true") == 0);
  send_one(1, 2);
}

void fork_in_decoder(uint32_t) {
  DRIX_RegIDLFuncHook(kOtherId, decode_forking, release);
  receive(kOtherId, 2, 0, 40);
  if (process == 0) {
    send_one(3, 0);
    std::exit(0);
  }
  wait_for(process);
  send_one(1, 0);
}

// While another thread makes a file.
void fork_in_thread(uint32_t) {
  in_turn = [] {
    is_in_turn = true;
    while (!may_go_on) usleep(1000);
  };
  std::thread thread([] { send_one(1, 0); });
  while (!is_in_turn) usleep(1000);
  process = fork();
  if (process == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // should it hang
    register_decoder(kId);
    send_one(3, 0);
    std::_Exit(0);  // what the other thread has allocated is no leak
  }
  wait_for(process);
  may_go_on = true;
  thread.join();
}

// What makes a child without telling libraries.
void unknown_child(uint32_t) {
  send_one(1, 0);
  for (uint32_t stream = 3; stream < 5; ++stream) {
    process = _Fork();
    if (process == 0) {
      if (stream == 4) register_decoder(kId);
      send(kId, 0, stream, 0, 3, 40);
      std::exit(0);
    }
    wait_for(process);
  }
  send_one(1, 1);
}

// The answer that the child gets is not its parent's.
void unknown_child_in_send(uint32_t) {
  static uint8_t payload[40];
  static DrixSendDescriptor message = {reinterpret_cast<uintptr_t>(payload), kId, sizeof payload};
  fill_payload(payload, sizeof payload, 1, 0);
  call_in_send([] {
    process = _Fork();
    if (process == 0) return;
    wait_for(process);
    std::longjmp(out, 1);
  });
  if (setjmp(out) != 0) return;
  DRIX_SendMsg(7, &message, 1);
  std::exit(0);
}

// A handler that interrupts the recorder makes a child, which goes on with it; the parent never does.
void interrupted_child(uint32_t) {
  in_fault = [] {
    fork_and_wait();
    if (process != 0) std::_Exit(0);
  };
  send_faulting(1, 0, 3);
  send_one(1, 3);
}

// The same while a file is being made.
void turning_child(uint32_t) {
  std::signal(SIGUSR1, [](int) { fork_and_wait(); });
  in_turn = [] { std::raise(SIGUSR1); };
  send_one(1, 0);
  if (process == 0) return;
  send_one(1, 1);
}
