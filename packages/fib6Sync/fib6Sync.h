/* Package fib6Sync: the records that synchronise the IPv6 forwarding information base between processes.
 *
 * Every update and delete message is an envelope: f0 is a header of two words that the sender fills, f1 is the one
 * record that the message carries. No record of this package owns memory.
 *
 * drix_message.h explains the operations of each message type and the functions of the package, fib6_sync_recv_init and
 * its like. */
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

/* Next-hop groups and their nodes. */

typedef struct fib6Sync_nhp6Group {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
} fib6Sync_nhp6Group;

typedef struct fib6Sync_nhp6GroupKey {
  uint32_t f0;
  uint32_t f1;
} fib6Sync_nhp6GroupKey;

typedef struct fib6Sync_nhp6GroupNode {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint32_t f6;
  uint32_t f7;
  uint32_t f8;
  uint32_t f9;
} fib6Sync_nhp6GroupNode;

typedef struct fib6Sync_nhp6GroupNodeKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint32_t f6;
} fib6Sync_nhp6GroupNodeKey;

typedef struct fib6Sync_nhp6GroupUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6Group f1;
} fib6Sync_nhp6GroupUpdateMsg;

typedef struct fib6Sync_nhp6GroupDelMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6GroupKey f1;
} fib6Sync_nhp6GroupDelMsg;

typedef struct fib6Sync_nhp6GroupNodeUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6GroupNode f1;
} fib6Sync_nhp6GroupNodeUpdateMsg;

typedef struct fib6Sync_nhp6GroupNodeDelMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6GroupNodeKey f1;
} fib6Sync_nhp6GroupNodeDelMsg;

/* Next hops and standard next hops. */

typedef struct fib6Sync_nhp6 {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4[4];
  uint8_t f5;
  uint8_t f6;
  uint16_t f7;
  uint32_t f8;
  uint32_t f9;
} fib6Sync_nhp6;

typedef struct fib6Sync_nhp6Key {
  uint32_t f0;
} fib6Sync_nhp6Key;

typedef struct fib6Sync_nhp6UpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6 f1;
} fib6Sync_nhp6UpdateMsg;

typedef struct fib6Sync_nhp6DelMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6Key f1;
} fib6Sync_nhp6DelMsg;

typedef struct fib6Sync_nhp6Std {
  uint32_t f0;
  uint32_t f1[4];
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint32_t f6;
  uint32_t f7;
  uint32_t f8;
  uint32_t f9;
} fib6Sync_nhp6Std;

typedef struct fib6Sync_nhp6StdKey {
  uint32_t f0;
  uint32_t f1[4];
  uint32_t f2;
} fib6Sync_nhp6StdKey;

typedef struct fib6Sync_nhp6StdUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6Std f1;
} fib6Sync_nhp6StdUpdateMsg;

typedef struct fib6Sync_nhp6StdDelMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6StdKey f1;
} fib6Sync_nhp6StdDelMsg;

/* Variants of next hops. uint8_t[6] has the width of an Ethernet MAC address, uint8_t[3] that of a VXLAN network
 * identifier. */

typedef struct fib6Sync_nhp6Ext {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint8_t f5;
  uint32_t f6;
} fib6Sync_nhp6Ext;

typedef struct fib6Sync_nhp6Vpn {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
} fib6Sync_nhp6Vpn;

typedef struct fib6Sync_nhp6Vxlan {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint32_t f6;
  uint16_t f7;
  uint8_t f8[6];
  uint8_t f9;
  uint8_t f10[3];
  uint32_t f11;
  uint8_t f12;
  uint32_t f13[4];
} fib6Sync_nhp6Vxlan;

typedef struct fib6Sync_nhp6VpnSid {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4[4];
  uint32_t f5[4];
  uint32_t f6[4];
  uint8_t f7;
  uint8_t f8;
  uint8_t f9;
  uint8_t f10;
  uint32_t f11;
  uint32_t f12[8];
} fib6Sync_nhp6VpnSid;

typedef struct fib6Sync_nhp6ExtSrv6Te {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4[4];
  uint8_t f5;
  uint8_t f6;
  uint32_t f7;
  uint32_t f8;
} fib6Sync_nhp6ExtSrv6Te;

typedef struct fib6Sync_nhp6_ext_label {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint32_t f6;
  uint32_t f7;
  uint32_t f8;
  uint32_t f9[4];
  uint32_t f10[4];
} fib6Sync_nhp6_ext_label;

typedef struct fib6Sync_nhp6ExtUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6Ext f1;
} fib6Sync_nhp6ExtUpdateMsg;

typedef struct fib6Sync_nhp6VpnUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6Vpn f1;
} fib6Sync_nhp6VpnUpdateMsg;

typedef struct fib6Sync_nhp6VxlanUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6Vxlan f1;
} fib6Sync_nhp6VxlanUpdateMsg;

typedef struct fib6Sync_nhp6VpnSidUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6VpnSid f1;
} fib6Sync_nhp6VpnSidUpdateMsg;

typedef struct fib6Sync_nhp6ExtSrv6TeUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_nhp6ExtSrv6Te f1;
} fib6Sync_nhp6ExtSrv6TeUpdateMsg;

typedef struct fib6Sync_nhp6_ext_label_update_data {
  fib6Sync_tlv f0;
  fib6Sync_nhp6_ext_label f1;
} fib6Sync_nhp6_ext_label_update_data;

/* SRv6 segment lists: ten entries of 128 bits each. */

typedef struct fib6Sync_srv6SrList {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint16_t f3;
  uint8_t f4;
  uint16_t f5;
  uint32_t f6[4];
  uint32_t f7[4];
  uint32_t f8[4];
  uint32_t f9[4];
  uint32_t f10[4];
  uint32_t f11[4];
  uint32_t f12[4];
  uint32_t f13[4];
  uint32_t f14[4];
  uint32_t f15[4];
  uint32_t f16;
} fib6Sync_srv6SrList;

typedef struct fib6Sync_srv6SrListKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint16_t f3;
} fib6Sync_srv6SrListKey;

typedef struct fib6Sync_srv6SrListUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_srv6SrList f1;
} fib6Sync_srv6SrListUpdateMsg;

typedef struct fib6Sync_srv6SrListDelMsg {
  fib6Sync_tlv f0;
  fib6Sync_srv6SrListKey f1;
} fib6Sync_srv6SrListDelMsg;

/* Path MTU entries. */

typedef struct fib6Sync_ipv6PathMtu {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
  uint32_t f3;
  uint32_t f4;
} fib6Sync_ipv6PathMtu;

typedef struct fib6Sync_ipv6PathMtuKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
} fib6Sync_ipv6PathMtuKey;

typedef struct fib6Sync_ipv6PathMtuUpdateMsg {
  fib6Sync_tlv f0;
  fib6Sync_ipv6PathMtu f1;
} fib6Sync_ipv6PathMtuUpdateMsg;

typedef struct fib6Sync_ipv6PathMtuDelMsg {
  fib6Sync_tlv f0;
  fib6Sync_ipv6PathMtuKey f1;
} fib6Sync_ipv6PathMtuDelMsg;

/* Load-balance and ECMP settings. They carry no header. */

typedef struct fib6Sync_balanceModeData {
  uint8_t f0;
  uint8_t f1;
  uint8_t f2;
  uint8_t f3;
  uint8_t f4;
} fib6Sync_balanceModeData;

typedef struct fib6Sync_balanceReverseData {
  uint8_t f0;
} fib6Sync_balanceReverseData;

typedef struct fib6Sync_loadBalanceMode {
  uint32_t f0;
  uint16_t f1;
  fib6Sync_balanceModeData f2;
} fib6Sync_loadBalanceMode;

typedef struct fib6Sync_loadBalanceReverse {
  uint32_t f0;
  uint16_t f1;
  fib6Sync_balanceReverseData f2;
} fib6Sync_loadBalanceReverse;

typedef struct fib6Sync_ecmpCfg {
  uint16_t f0;
  uint32_t f1;
  fib6Sync_balanceModeData f2;
  fib6Sync_balanceReverseData f3;
} fib6Sync_ecmpCfg;

/* Every message type of the package, in the order in which fib6_sync_recv_init registers them. */
#define FIB6SYNC_MESSAGES(MESSAGE)          \
  MESSAGE(fib6Sync, tlv)                    \
  MESSAGE(fib6Sync, ipv6Fwd)                \
  MESSAGE(fib6Sync, ipv6FwdKey)             \
  MESSAGE(fib6Sync, nhp6Group)              \
  MESSAGE(fib6Sync, nhp6GroupKey)           \
  MESSAGE(fib6Sync, nhp6GroupNode)          \
  MESSAGE(fib6Sync, nhp6GroupNodeKey)       \
  MESSAGE(fib6Sync, nhp6)                   \
  MESSAGE(fib6Sync, nhp6Key)                \
  MESSAGE(fib6Sync, nhp6Std)                \
  MESSAGE(fib6Sync, nhp6StdKey)             \
  MESSAGE(fib6Sync, nhp6Ext)                \
  MESSAGE(fib6Sync, nhp6Vpn)                \
  MESSAGE(fib6Sync, nhp6Vxlan)              \
  MESSAGE(fib6Sync, nhp6VpnSid)             \
  MESSAGE(fib6Sync, nhp6ExtSrv6Te)          \
  MESSAGE(fib6Sync, ipv6PathMtu)            \
  MESSAGE(fib6Sync, ipv6PathMtuKey)         \
  MESSAGE(fib6Sync, balanceModeData)        \
  MESSAGE(fib6Sync, balanceReverseData)     \
  MESSAGE(fib6Sync, srv6SrList)             \
  MESSAGE(fib6Sync, srv6SrListKey)          \
  MESSAGE(fib6Sync, nhp6_ext_label)         \
  MESSAGE(fib6Sync, svcCtxMsg)              \
  MESSAGE(fib6Sync, ipv6FwdUpdateMsg)       \
  MESSAGE(fib6Sync, ipv6FwdDelMsg)          \
  MESSAGE(fib6Sync, nhp6GroupUpdateMsg)     \
  MESSAGE(fib6Sync, nhp6GroupDelMsg)        \
  MESSAGE(fib6Sync, nhp6GroupNodeUpdateMsg) \
  MESSAGE(fib6Sync, nhp6GroupNodeDelMsg)    \
  MESSAGE(fib6Sync, nhp6UpdateMsg)          \
  MESSAGE(fib6Sync, nhp6DelMsg)             \
  MESSAGE(fib6Sync, nhp6StdUpdateMsg)       \
  MESSAGE(fib6Sync, nhp6StdDelMsg)          \
  MESSAGE(fib6Sync, nhp6ExtUpdateMsg)       \
  MESSAGE(fib6Sync, nhp6VpnUpdateMsg)       \
  MESSAGE(fib6Sync, nhp6VxlanUpdateMsg)     \
  MESSAGE(fib6Sync, nhp6VpnSidUpdateMsg)    \
  MESSAGE(fib6Sync, nhp6ExtSrv6TeUpdateMsg) \
  MESSAGE(fib6Sync, ipv6PathMtuUpdateMsg)   \
  MESSAGE(fib6Sync, ipv6PathMtuDelMsg)      \
  MESSAGE(fib6Sync, loadBalanceMode)        \
  MESSAGE(fib6Sync, loadBalanceReverse)     \
  MESSAGE(fib6Sync, ecmpCfg)                \
  MESSAGE(fib6Sync, srv6SrListUpdateMsg)    \
  MESSAGE(fib6Sync, srv6SrListDelMsg)       \
  MESSAGE(fib6Sync, nhp6_ext_label_update_data)

FIB6SYNC_MESSAGES(DRIX_DECLARE_MESSAGE)
DRIX_DECLARE_PACKAGE(fib6_sync)

#ifdef __cplusplus
}
#endif

#endif
