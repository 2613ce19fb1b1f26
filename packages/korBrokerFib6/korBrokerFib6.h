/* Package korBrokerFib6: the records exchanged with the forwarding broker.
 *
 * Update and delete messages carry a leading word and any number of records.
 *
 * drix_message.h explains the operations of each message type and the functions of the package, fib6_recv_init and
 * its like. */
#ifndef KORBROKERFIB6_H
#define KORBROKERFIB6_H

#include "drix_message.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Routes. A uint32_t[4] member holds 128 bits, the width of an IPv6 address. */

typedef struct korBrokerFib6_ipv6Fwd {
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
} korBrokerFib6_ipv6Fwd;

typedef struct korBrokerFib6_ipv6FwdKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
  uint8_t f3;
  uint8_t f4[3];
} korBrokerFib6_ipv6FwdKey;

typedef struct korBrokerFib6_ipv6FwdUpdateMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_ipv6Fwd *f1;
} korBrokerFib6_ipv6FwdUpdateMsg;

typedef struct korBrokerFib6_ipv6FwdDelMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_ipv6FwdKey *f1;
} korBrokerFib6_ipv6FwdDelMsg;

/* Next hops: the common record, its key, and six variants, of which an update carries any number each. */

typedef struct korBrokerFib6_nhp6 {
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
} korBrokerFib6_nhp6;

typedef struct korBrokerFib6_nhp6Key {
  uint32_t f0;
} korBrokerFib6_nhp6Key;

typedef struct korBrokerFib6_nhp6Std {
  uint32_t f0;
  uint32_t f1[4];
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint32_t f6;
  uint32_t f7;
  uint32_t f8;
} korBrokerFib6_nhp6Std;

typedef struct korBrokerFib6_nhp6Ext {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
  uint8_t f6;
  uint8_t f7[3];
} korBrokerFib6_nhp6Ext;

typedef struct korBrokerFib6_nhp6Vpn {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
} korBrokerFib6_nhp6Vpn;

typedef struct korBrokerFib6_nhp6Vxlan {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint8_t f4;
  uint8_t f5[3];
  uint16_t f6;
  uint8_t f7[6];
  uint32_t f8;
  uint32_t f9;
  uint32_t f10;
  uint8_t f11;
  uint32_t f12[4];
} korBrokerFib6_nhp6Vxlan;

typedef struct korBrokerFib6_nhp6VpnSid {
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
} korBrokerFib6_nhp6VpnSid;

typedef struct korBrokerFib6_nhp6Pp6ExtSrv6Te {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4[4];
  uint8_t f5;
  uint8_t f6;
  uint32_t f7;
  uint32_t f8;
} korBrokerFib6_nhp6Pp6ExtSrv6Te;

typedef struct korBrokerFib6_nhp6UpdateMsg {
  uint32_t f0;
  korBrokerFib6_nhp6 f1;
  uint32_t f2Count;
  korBrokerFib6_nhp6Std *f2;
  uint32_t f3Count;
  korBrokerFib6_nhp6Ext *f3;
  uint32_t f4Count;
  korBrokerFib6_nhp6Vpn *f4;
  uint32_t f5Count;
  korBrokerFib6_nhp6Vxlan *f5;
  uint32_t f6Count;
  korBrokerFib6_nhp6VpnSid *f6;
  uint32_t f7Count;
  korBrokerFib6_nhp6Pp6ExtSrv6Te *f7;
} korBrokerFib6_nhp6UpdateMsg;

typedef struct korBrokerFib6_nhp6DelMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_nhp6Key *f1;
} korBrokerFib6_nhp6DelMsg;

/* Next-hop groups and their members. */

typedef struct korBrokerFib6_nhp6Group {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
} korBrokerFib6_nhp6Group;

typedef struct korBrokerFib6_nhp6GroupKey {
  uint32_t f0;
  uint32_t f1;
} korBrokerFib6_nhp6GroupKey;

typedef struct korBrokerFib6_nhp6GroupNode {
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
} korBrokerFib6_nhp6GroupNode;

typedef struct korBrokerFib6_nhp6GroupUpdateMsg {
  uint32_t f0;
  korBrokerFib6_nhp6Group f1;
  uint32_t f2Count;
  korBrokerFib6_nhp6GroupNode *f2;
} korBrokerFib6_nhp6GroupUpdateMsg;

typedef struct korBrokerFib6_nhp6GroupDelMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_nhp6GroupKey *f1;
} korBrokerFib6_nhp6GroupDelMsg;

/* SRv6 segment lists. */

typedef struct korBrokerFib6_srv6SrList {
  uint32_t f0;
  uint32_t f1;
  uint16_t f2;
  uint16_t f3;
  uint32_t f4[4];
  uint32_t f5[4];
  uint32_t f6[4];
  uint32_t f7[4];
  uint32_t f8[4];
  uint32_t f9[4];
  uint32_t f10[4];
  uint32_t f11[4];
  uint32_t f12[4];
  uint32_t f13[4];
  uint8_t f14;
  uint32_t f15;
  uint32_t f16;
} korBrokerFib6_srv6SrList;

typedef struct korBrokerFib6_srv6SrListKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint16_t f3;
} korBrokerFib6_srv6SrListKey;

typedef struct korBrokerFib6_srv6SrListUpdateMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_srv6SrList *f1;
} korBrokerFib6_srv6SrListUpdateMsg;

typedef struct korBrokerFib6_srv6SrListDelMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_srv6SrListKey *f1;
} korBrokerFib6_srv6SrListDelMsg;

/* Path MTU entries. */

typedef struct korBrokerFib6_ipv6PathMtu {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
  uint32_t f3;
  uint32_t f4;
} korBrokerFib6_ipv6PathMtu;

typedef struct korBrokerFib6_ipv6PathMtuKey {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2[4];
} korBrokerFib6_ipv6PathMtuKey;

typedef struct korBrokerFib6_ipv6PathMtuUpdateMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_ipv6PathMtu *f1;
} korBrokerFib6_ipv6PathMtuUpdateMsg;

typedef struct korBrokerFib6_ipv6PathMtuDelMsg {
  uint32_t f0;
  uint32_t f1Count;
  korBrokerFib6_ipv6PathMtuKey *f1;
} korBrokerFib6_ipv6PathMtuDelMsg;

/* PID, classification and VRF states, each with the message that carries it. */

typedef struct korBrokerFib6_pidState {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
} korBrokerFib6_pidState;

typedef struct korBrokerFib6_pidStateMsg {
  uint32_t f0;
  korBrokerFib6_pidState f1;
} korBrokerFib6_pidStateMsg;

typedef struct korBrokerFib6_classItem {
  uint32_t f0;
  uint32_t f1;
  uint8_t f2;
} korBrokerFib6_classItem;

typedef struct korBrokerFib6_classItemMsg {
  uint32_t f0;
  korBrokerFib6_classItem f1;
} korBrokerFib6_classItemMsg;

typedef struct korBrokerFib6_vrfClassState {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint32_t f5;
} korBrokerFib6_vrfClassState;

typedef struct korBrokerFib6_vrfClassStateMsg {
  uint32_t f0;
  korBrokerFib6_vrfClassState f1;
} korBrokerFib6_vrfClassStateMsg;

typedef struct korBrokerFib6_vrfClassData {
  uint32_t f0;
  uint32_t f1;
  uint32_t f2;
  uint32_t f3;
  uint32_t f4;
  uint8_t f5;
} korBrokerFib6_vrfClassData;

typedef struct korBrokerFib6_vrfClassDataMsg {
  uint32_t f0;
  korBrokerFib6_vrfClassData f1;
} korBrokerFib6_vrfClassDataMsg;

typedef struct korBrokerFib6_lrClassDataMsg {
  uint32_t f0;
  uint32_t f1;
} korBrokerFib6_lrClassDataMsg;

/* Load balance. */

typedef struct korBrokerFib6_loadBalanceMode {
  uint32_t f0;
  uint32_t f1;
  uint8_t f2;
  uint8_t f3;
  uint8_t f4;
  uint8_t f5;
  uint8_t f6;
} korBrokerFib6_loadBalanceMode;

typedef struct korBrokerFib6_loadBalanceReverse {
  uint32_t f0;
  uint32_t f1;
  uint8_t f2;
} korBrokerFib6_loadBalanceReverse;

/* Every message type of the package, in the order in which fib6_recv_init registers them. */
#define KORBROKERFIB6_MESSAGES(MESSAGE)        \
  MESSAGE(korBrokerFib6, nhp6Group)            \
  MESSAGE(korBrokerFib6, nhp6)                 \
  MESSAGE(korBrokerFib6, pidState)             \
  MESSAGE(korBrokerFib6, classItem)            \
  MESSAGE(korBrokerFib6, vrfClassState)        \
  MESSAGE(korBrokerFib6, vrfClassData)         \
  MESSAGE(korBrokerFib6, ipv6Fwd)              \
  MESSAGE(korBrokerFib6, ipv6FwdKey)           \
  MESSAGE(korBrokerFib6, ipv6FwdUpdateMsg)     \
  MESSAGE(korBrokerFib6, ipv6FwdDelMsg)        \
  MESSAGE(korBrokerFib6, nhp6GroupNode)        \
  MESSAGE(korBrokerFib6, nhp6GroupKey)         \
  MESSAGE(korBrokerFib6, nhp6GroupUpdateMsg)   \
  MESSAGE(korBrokerFib6, nhp6GroupDelMsg)      \
  MESSAGE(korBrokerFib6, nhp6Key)              \
  MESSAGE(korBrokerFib6, nhp6Std)              \
  MESSAGE(korBrokerFib6, nhp6Ext)              \
  MESSAGE(korBrokerFib6, nhp6Vpn)              \
  MESSAGE(korBrokerFib6, nhp6Vxlan)            \
  MESSAGE(korBrokerFib6, nhp6VpnSid)           \
  MESSAGE(korBrokerFib6, nhp6Pp6ExtSrv6Te)     \
  MESSAGE(korBrokerFib6, nhp6UpdateMsg)        \
  MESSAGE(korBrokerFib6, nhp6DelMsg)           \
  MESSAGE(korBrokerFib6, srv6SrList)           \
  MESSAGE(korBrokerFib6, srv6SrListKey)        \
  MESSAGE(korBrokerFib6, srv6SrListUpdateMsg)  \
  MESSAGE(korBrokerFib6, srv6SrListDelMsg)     \
  MESSAGE(korBrokerFib6, ipv6PathMtu)          \
  MESSAGE(korBrokerFib6, ipv6PathMtuKey)       \
  MESSAGE(korBrokerFib6, ipv6PathMtuUpdateMsg) \
  MESSAGE(korBrokerFib6, ipv6PathMtuDelMsg)    \
  MESSAGE(korBrokerFib6, pidStateMsg)          \
  MESSAGE(korBrokerFib6, classItemMsg)         \
  MESSAGE(korBrokerFib6, vrfClassStateMsg)     \
  MESSAGE(korBrokerFib6, vrfClassDataMsg)      \
  MESSAGE(korBrokerFib6, lrClassDataMsg)       \
  MESSAGE(korBrokerFib6, loadBalanceMode)      \
  MESSAGE(korBrokerFib6, loadBalanceReverse)

KORBROKERFIB6_MESSAGES(DRIX_DECLARE_MESSAGE)
DRIX_DECLARE_PACKAGE(fib6)

#ifdef __cplusplus
}
#endif

#endif
