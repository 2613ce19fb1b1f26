// The measure for an exchange between processes: as many bytes as the route sender's batches have, from one process to
// another by ZeroMQ's PUSH and PULL, nothing else done with them. Prints records per second.
//
// drix_bench_exchange BATCH RECORDS
#include <sys/wait.h>
#include <unistd.h>
#include <zmq.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "fib6Sync.h"
#include "runtime/image.h"

namespace {

void require(bool met, const char *what) {
  if (!met) throw std::runtime_error(std::string(what) + ": " + zmq_strerror(zmq_errno()));
}

// Takes in frames up to the first empty one, which it answers.
void receive(const char *endpoint, const char *answers) {
  void *const context = zmq_ctx_new();
  void *const frames = zmq_socket(context, ZMQ_PULL);
  void *const answer = zmq_socket(context, ZMQ_PUSH);
  require(zmq_bind(frames, endpoint) == 0 && zmq_connect(answer, answers) == 0, endpoint);
  zmq_msg_t frame;
  zmq_msg_init(&frame);
  do {
    require(zmq_msg_recv(&frame, frames, 0) >= 0, "receive");
  } while (zmq_msg_size(&frame) != 0);
  require(zmq_send(answer, "", 0, 0) == 0, "answer");
  zmq_close(frames);
  zmq_close(answer);
  zmq_ctx_term(context);
}

double send(const char *endpoint, const char *answers, std::size_t batch, std::size_t records) {
  void *const context = zmq_ctx_new();
  void *const frames = zmq_socket(context, ZMQ_PUSH);
  void *const answer = zmq_socket(context, ZMQ_PULL);
  require(zmq_bind(answer, answers) == 0 && zmq_connect(frames, endpoint) == 0, endpoint);
  const std::vector<uint8_t> bytes(batch * drix::fixed_length<fib6Sync_ipv6FwdUpdateMsg>(), 1);
  const auto start = std::chrono::steady_clock::now();
  for (std::size_t sent = 0; sent < records; sent += batch) {
    require(zmq_send(frames, bytes.data(), bytes.size(), 0) >= 0, "send");
  }
  require(zmq_send(frames, "", 0, 0) == 0 && zmq_recv(answer, nullptr, 0, 0) == 0, "end");
  const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start;
  zmq_close(frames);
  zmq_close(answer);
  zmq_ctx_term(context);
  return seconds.count();
}

}  // namespace

int main(int argc, char **argv) {
  if (argc != 3) return 2;
  const std::size_t batch = std::stoul(argv[1]);
  const std::size_t records = std::stoul(argv[2]);
  const std::string name = "ipc:///tmp/drix_bench_exchange." + std::to_string(getpid());
  const std::string answers = name + ".answers";
  const pid_t receiver = fork();
  if (receiver == 0) {
    receive(name.c_str(), answers.c_str());
    return 0;
  }
  std::printf("%.0f\n", static_cast<double>(records) / send(name.c_str(), answers.c_str(), batch, records));
  int status;
  return waitpid(receiver, &status, 0) == receiver && status == 0 ? 0 : 1;
}
