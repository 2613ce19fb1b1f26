/* Package fib6_cfg: configuration, query and diagnostic records of the IPv6 forwarding information base.
 *
 * A query's key pairs the common parameter with a condition, its result the common result with what was found.
 *
 * drix_message.h explains the operations of each message type and the functions of the package, fib6_cfg_recv_init and
 * its like. */
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

/* Queries of the FIB6: condition, key, item and a result of many items. A uint32_t[4] member holds 128 bits, the width
 * of an IPv6 address. */

typedef struct fib6_cfg_query_fib6_cond {
  uint32_t f0;
  uint32_t f1[4];
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint8_t f5;
  uint8_t f6;
  uint16_t f7;
  uint32_t f8;
} fib6_cfg_query_fib6_cond;

typedef struct fib6_cfg_query_fib6_key {
  fib6_cfg_query_comm_param f0;
  fib6_cfg_query_fib6_cond f1;
} fib6_cfg_query_fib6_key;

typedef struct fib6_cfg_query_fib6_item {
  uint32_t f0[4];
  uint32_t f1[4];
  uint8_t f2;
  uint8_t f3;
  uint16_t f4;
  uint32_t f5;
  uint8_t f6;
  uint32_t f7;
  uint32_t f8;
  uint8_t f9[21];
  uint8_t f10[32];
  uint32_t f11;
  uint32_t f12;
  uint16_t f13;
  uint8_t f14;
  uint8_t f15;
  uint8_t f16;
  uint8_t f17;
  uint8_t f18;
  uint8_t f19;
  uint32_t f20;
  uint8_t f21[32];
  uint8_t f22;
  uint32_t f23[4];
  uint32_t f24[4];
  uint32_t f25;
  uint32_t f26;
  uint32_t f27;
  uint16_t f28;
  uint16_t f29;
  uint32_t f30;
  uint8_t f31;
  uint8_t f32;
  uint8_t f33;
  uint8_t f34[21];
  uint8_t f35;
  uint32_t f36;
  uint32_t f37;
  uint8_t f38[8];
  uint8_t f39[21];
  uint32_t f40;
  uint32_t f41;
  uint8_t f42[3];
  uint32_t f43[4];
  uint32_t f44[4];
  uint32_t f45;
  uint8_t f46;
  uint32_t f47;
} fib6_cfg_query_fib6_item;

typedef struct fib6_cfg_query_fib6_rec {
  fib6_cfg_query_comm_rec f0;
  uint32_t f1Count;
  fib6_cfg_query_fib6_item *f1;
} fib6_cfg_query_fib6_rec;

/* Queries that check the FIB6; a result holds one item. */

typedef struct fib6_cfg_query_fib6check_cond {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
} fib6_cfg_query_fib6check_cond;

typedef struct fib6_cfg_query_fib6check_key {
  fib6_cfg_query_comm_param f0;
  fib6_cfg_query_fib6check_cond f1;
} fib6_cfg_query_fib6check_key;

typedef struct fib6_cfg_query_fib6check_item {
  uint32_t f0;
  uint8_t f1;
  uint32_t f2[64];
} fib6_cfg_query_fib6check_item;

typedef struct fib6_cfg_query_fib6check_rec {
  fib6_cfg_query_comm_rec f0;
  fib6_cfg_query_fib6check_item f1;
} fib6_cfg_query_fib6check_rec;

/* Diagnostic queries. */

typedef struct fib6_cfg_query_dfx_cond {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
} fib6_cfg_query_dfx_cond;

typedef struct fib6_cfg_query_dfx_key {
  fib6_cfg_query_comm_param f0;
  fib6_cfg_query_dfx_cond f1;
} fib6_cfg_query_dfx_key;

typedef struct fib6_cfg_query_dfx_item {
  uint32_t f0;
  uint8_t f1[50];
  uint32_t f2;
  uint8_t f3[32];
  uint8_t f4[32];
  uint8_t f5[32];
  uint32_t f6;
} fib6_cfg_query_dfx_item;

typedef struct fib6_cfg_query_dfx_rec {
  fib6_cfg_query_comm_rec f0;
  uint32_t f1Count;
  fib6_cfg_query_dfx_item *f1;
} fib6_cfg_query_dfx_rec;

/* Forwarding of IPv6 packets whose TTL has expired. */

typedef struct fib6_cfg_cfg_ipv6_ttl_expired_forward {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4[4];
} fib6_cfg_cfg_ipv6_ttl_expired_forward;

/* Every message type of the package, in the order in which fib6_cfg_recv_init registers them. */
#define FIB6_CFG_MESSAGES(MESSAGE)                \
  MESSAGE(fib6_cfg, query_fib6_cond)              \
  MESSAGE(fib6_cfg, query_comm_param)             \
  MESSAGE(fib6_cfg, query_comm_rec)               \
  MESSAGE(fib6_cfg, query_dfx_cond)               \
  MESSAGE(fib6_cfg, query_fib6check_cond)         \
  MESSAGE(fib6_cfg, query_fib6check_item)         \
  MESSAGE(fib6_cfg, query_fib6_item)              \
  MESSAGE(fib6_cfg, query_fib6_key)               \
  MESSAGE(fib6_cfg, query_fib6_rec)               \
  MESSAGE(fib6_cfg, query_dfx_item)               \
  MESSAGE(fib6_cfg, query_dfx_key)                \
  MESSAGE(fib6_cfg, query_dfx_rec)                \
  MESSAGE(fib6_cfg, cfg_ipv6_ttl_expired_forward) \
  MESSAGE(fib6_cfg, query_fib6check_key)          \
  MESSAGE(fib6_cfg, query_fib6check_rec)

FIB6_CFG_MESSAGES(DRIX_DECLARE_MESSAGE)
DRIX_DECLARE_PACKAGE(fib6_cfg)

#ifdef __cplusplus
}
#endif

#endif
