/* Package fib6Sync: the records that synchronise the IPv6 forwarding information base between processes.
 *
 * Every update and delete message is an envelope: f0 is a header of two words that the sender fills, f1 is the one
 * record that the message carries. No record of this package owns memory.
 *
 * drix_message.h explains the operations of each message type and the functions of the package. */
#ifndef FIB6SYNC_H
#define FIB6SYNC_H

#include "drix_message.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The header of every envelope. */

typedef struct fib6Sync_tlv {
  uint32_t f0;
  uint32_t f1;
} fib6Sync_tlv;

/* Routes. A uint32_t[4] member holds 128 bits, the width of an IPv6 address. */

typedef struct fib6Sync_ipv6Fwd {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3[4];
  uint8_t f4;
  uint8_t f5;
  uint16_t f6;
  uint32_t f7;
  uint32_t f8;
  uint32_t f9;
  uint32_t f10;
  uint16_t f11;
  uint16_t f12;
  uint32_t f13;
} fib6Sync_ipv6Fwd;

typedef struct fib6Sync_ipv6FwdKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
  uint8_t f3;
  uint8_t f4[3];
} fib6Sync_ipv6FwdKey;

typedef struct fib6Sync_ipv6FwdUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_ipv6Fwd f1;
} fib6Sync_ipv6FwdUpdateMsg;

typedef struct fib6Sync_ipv6FwdDelMsg {
  fib6Sync_tlv f0;
  fib6Sync_ipv6FwdKey f1;
} fib6Sync_ipv6FwdDelMsg;

/* Service context: headed like an envelope, carrying eight words. */

typedef struct fib6Sync_svcCtxMsg {
  fib6Sync_tlv f0;
  uint32_t f1[8];
} fib6Sync_svcCtxMsg;

/* Every message type of the package, in the order in which fib6_sync_recv_init registers them. */
#define FIB6SYNC_MESSAGES(MESSAGE)    \
  MESSAGE(fib6Sync, tlv)              \
  MESSAGE(fib6Sync, ipv6Fwd)          \
  MESSAGE(fib6Sync, ipv6FwdKey)       \
  MESSAGE(fib6Sync, svcCtxMsg)        \
  MESSAGE(fib6Sync, ipv6FwdUpdateMsg) \
  MESSAGE(fib6Sync, ipv6FwdDelMsg)

FIB6SYNC_MESSAGES(DRIX_DECLARE_MESSAGE)
DRIX_DECLARE_PACKAGE(fib6_sync)

#ifdef __cplusplus
}
#endif

#endif
