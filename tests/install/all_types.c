/* A user's program that calls every operation of every message type and package: each is declared, linked and bound. */
#include <stdio.h>
#include <string.h>

#include "fib6Sync.h"
#include "fib6_cfg.h"
#include "korBrokerFib6.h"

static int operations = 0;
static int failures = 0;

static void expect(int good, int count, const char *what) {
  operations += count;
  if (good) return;
  printf("%s: not as it should be\n", what);
  failures++;
}

#define USE(package, message)                                                                                    \
  static void use_##package##_##message(void) {                                                                  \
    package##_##message sent, received;                                                                          \
    uint8_t buffer[4096];                                                                                        \
    uint32_t length = sizeof buffer;                                                                             \
    memset(&sent, 0, sizeof sent);                                                                               \
    memset(&received, 1, sizeof received);                                                                       \
    expect(package##_##message##__pack(&sent, buffer, &length) == 0, 1, #message "__pack");                      \
    expect(package##_##message##__unpack(buffer, length, &received) == sizeof received, 1, #message "__unpack"); \
    package##_##message##_free__unpacked(&received);                                                             \
    expect(memcmp(&sent, &received, sizeof sent) == 0, 1, #message);                                             \
    expect(package##_##message##__sendmsg(1, NULL, 1) == -1, 1, #message "__sendmsg");                           \
    expect(package##_##message##__sendtomsg(1, NULL, 1, 1) == -1, 1, #message "__sendtomsg");                    \
    expect(package##_##message##__sendsingle(1, NULL, 1, 1) == -1, 1, #message "__sendsingle");                  \
    expect(package##_##message##__sendbatch(1, NULL, 2, 1) == -1, 1, #message "__sendbatch");                    \
  }
#define CALL(package, message) use_##package##_##message();

FIB6_CFG_MESSAGES(USE)
KORBROKERFIB6_MESSAGES(USE)
FIB6SYNC_MESSAGES(USE)

#define USE_PACKAGE(prefix)                                   \
  expect(prefix##_recv_init() == 0, 1, #prefix "_recv_init"); \
  expect(prefix##_send_init() == 0, 1, #prefix "_send_init"); \
  prefix##__send_resource_clean();                            \
  operations++;

int main(void) {
  USE_PACKAGE(fib6_cfg)
  USE_PACKAGE(fib6)
  USE_PACKAGE(fib6_sync)
  FIB6_CFG_MESSAGES(CALL)
  KORBROKERFIB6_MESSAGES(CALL)
  FIB6SYNC_MESSAGES(CALL)
  printf("%d operations, %d failures\n", operations, failures);
  return failures > 0;
}
