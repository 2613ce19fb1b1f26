// Sends one record of every message type with random content, again and again, see soak_record.h. Succeeds only when
// the receiver has acknowledged every message.
#include <cstdint>
#include <cstdio>
#include <random>

#include "channel.h"
#include "process.h"
#include "soak_record.h"

namespace {

struct Options {
  ChannelOptions channel = {.endpoint = soak::kDefaultEndpoint};
  uint32_t seconds = 10;
  uint32_t seed = std::random_device()();

  void add_to(CommandLine &line) {
    channel.add_to(line);
    line.option("--seconds", seconds, "how long to send", 1, 86400);
    line.option("--seed", seed, "of the random content");
  }
};

void send_mark(Channel &channel, const soak::Mark &mark) {
  const fib6Sync_svcCtxMsg message = soak::make_mark(mark);
  channel.send(message);
}

void run(const Options &options) {
  for (const auto init : {fib6_cfg_send_init, fib6_send_init, fib6_sync_send_init}) {
    check(init(), "cannot register with the bus");
  }
  Channel channel(options.channel);
  std::printf("sending random records, seed %u\n", options.seed);
  std::fflush(stdout);  // also known when a record brings this process down
  const Clock::time_point start = Clock::now();
  soak::Round round = {.seed = options.seed, .number = 1};
  uint64_t sent = 0;
  for (; round.number == 1 || seconds_since(start) < options.seconds; ++round.number) {
    send_mark(channel, {.round = round, .end = false});
    for (const soak::Type *type : drix::describe::types()) {
      soak::send(channel, *type, round);
      ++sent;
    }
  }
  send_mark(channel, {.round = round, .end = true});
  channel.flush();
  const double seconds = seconds_since(start);
  std::printf("sent %s, all acknowledged\n", format_rate(sent, "records", seconds).c_str());
}

}  // namespace

int main(int argc, char **argv) {
  return run_process("soak_sender", "Sends random records of every message type over the bus.", argc, argv, run);
}
