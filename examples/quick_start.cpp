// The quick start in C++17: decodes a record without a bus, then sends two over the bus inside this process.
#include <cstdint>
#include <cstdio>
#include <vector>

#include "drix_message.hpp"
#include "kelvodrix.h"

using Query = fib6_cfg_query_comm_param;

static void print(const char *what, const Query &query) {
  std::printf("%s %u %u ", what, query.f0, query.f1);
  for (const uint8_t letter : drix::span(query.f2, query.f2Len)) std::putchar(letter);
  std::putchar('\n');
}

static void on_query(void *receiver, uint32_t, const void *record, uint32_t) {
  const Query &query = *static_cast<const Query *>(record);
  print("received", query);
  if (query.f0 == 7) kelvodrix_stop(static_cast<kelvodrix_receiver *>(receiver));
}

int main() {
  uint8_t name[] = "vrf-red", buffer[256];
  const std::vector<Query> queries = {{6, 254, sizeof name - 1, name}, {7, 255, 3, name}};
  uint32_t length = sizeof buffer, channel = 0;
  if (drix::message<Query>::pack(&queries[0], buffer, &length) != 0) return 1;
  print("decoded", *drix::received<Query>(buffer, length));  // which releases what was decoded

  kelvodrix_receiver *receiver = nullptr;
  bool failed = fib6_cfg_recv_init() || kelvodrix_receiver_create("inproc://quick_start", &receiver) ||
                kelvodrix_subscribe(receiver, drix::message<Query>::id, on_query, receiver) ||
                kelvodrix_open("inproc://quick_start", nullptr, &channel) || drix::send(channel, queries) ||
                kelvodrix_run(receiver);
  failed |= kelvodrix_close(channel, 1000, nullptr) != 0;  // not 0 unless both were acknowledged
  failed |= kelvodrix_receiver_destroy(receiver) != 0;
  return failed ? 1 : 0;
}
