/* Package fib6_cfg: configuration, query and diagnostic records of the IPv6 forwarding information base.
 *
 * drix_message.h explains the operations of each message type and the functions of the package. */
#ifndef FIB6_CFG_H
#define FIB6_CFG_H

#include "drix_message.h"

#ifdef __cplusplus
extern "C" {
#endif

/* What every query starts with, and what every result starts with. */

typedef struct fib6_cfg_query_comm_param {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2Len;
  uint8_t *f2;
} fib6_cfg_query_comm_param;

typedef struct fib6_cfg_query_comm_rec {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3Len;
  uint8_t *f3;
} fib6_cfg_query_comm_rec;

/* Every message type of the package, in the order in which fib6_cfg_recv_init registers them. */
#define FIB6_CFG_MESSAGES(MESSAGE)    \
  MESSAGE(fib6_cfg, query_comm_param) \
  MESSAGE(fib6_cfg, query_comm_rec)

FIB6_CFG_MESSAGES(DRIX_DECLARE_MESSAGE)
DRIX_DECLARE_PACKAGE(fib6_cfg)

#ifdef __cplusplus
}
#endif

#endif
