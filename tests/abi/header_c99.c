/* The public headers in a C99 process: they compile alone, link, and their operations are callable. */
#include "fib6Sync.h"
#include "fib6_cfg.h"

#include <stdio.h>

int main(void) {
  fib6Sync_tlv sent = {1, 2}, received;
  uint8_t buffer[64];
  uint32_t length = sizeof buffer;
  if (fib6Sync_tlv__pack(&sent, buffer, &length) != 0) return 1;
  if (fib6Sync_tlv__unpack(buffer, length, &received) != sizeof received) return 2;
  fib6Sync_tlv_free__unpacked(&received);
  if (received.f0 != 1 || received.f1 != 2) return 3;
  if (fib6_cfg_query_comm_param__pack(NULL, buffer, &length) != -1) return 4;
  return 0;
}
