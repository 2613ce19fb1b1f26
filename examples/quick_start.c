/* Sends one record over the bus inside this process, receives it and prints it. */
#include <stdio.h>

#include "fib6_cfg.h"
#include "kelvodrix.h"

static void on_query(void *receiver, uint32_t id, const void *record, uint32_t size) {
  const fib6_cfg_query_comm_param *query = record;
  (void)id, (void)size;
  printf("received %u %u %.*s\n", query->f0, query->f1, (int)query->f2Len, (const char *)query->f2);
  kelvodrix_stop(receiver); /* on return the bus releases the record with fib6_cfg_query_comm_param_free__unpacked */
}

int main(void) {
  uint8_t name[] = "vrf-red";
  const fib6_cfg_query_comm_param query = {.f0 = 6, .f1 = 254, .f2Len = sizeof name - 1, .f2 = name};
  kelvodrix_receiver *receiver = NULL;
  uint32_t channel = 0;

  int failed = fib6_cfg_recv_init() || kelvodrix_receiver_create("inproc://quick_start", &receiver) ||
               kelvodrix_subscribe(receiver, drix_message_id("fib6_cfg.query_comm_param"), on_query, receiver) ||
               kelvodrix_open("inproc://quick_start", NULL, &channel) ||
               fib6_cfg_query_comm_param__sendmsg(channel, &query, 1) || kelvodrix_run(receiver);
  failed |= kelvodrix_close(channel, 1000, NULL); /* not 0 unless the message was acknowledged */
  failed |= kelvodrix_receiver_destroy(receiver);
  return failed ? 1 : 0;
}
