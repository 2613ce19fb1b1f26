/* What libdrix_fib6 imports from the platform's message bus, libkelvodrix. */
#ifndef DRIX_BUS_H
#define DRIX_BUS_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One encoded message. On the ILP32 platform these are three 32-bit words; elsewhere the address has the width of a
 * pointer. */
typedef struct DrixSendDescriptor {
  uintptr_t address; /* of the encoded message */
  uint32_t id;       /* message ID */
  uint32_t length;   /* encoded length in bytes */
} DrixSendDescriptor;

/* Decodes a received buffer into a record. Returns the record's size in bytes, whether the buffer was good or not. */
typedef uint32_t (*DrixDecodeFunc)(const uint8_t *buffer, uint32_t length, void *record);

/* Releases what decoding allocated for a record. */
typedef void (*DrixReleaseFunc)(void *record);

/* Frees what sending has kept between calls. */
typedef void (*DrixResourceCleanFunc)(void);

/* Send count described messages to the handle's default destination, or to the given one. Both return the bus's status;
 * on return it needs neither descriptors nor messages any more. */
int32_t DRIX_SendMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count);
int32_t DRIX_SendToMsg(uint32_t handle, DrixSendDescriptor *descriptors, uint32_t count, uint32_t destination);

/* Registers how messages with this ID are decoded and released. Returns 0 when accepted, or the bus's status. */
int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc release);

/* Registers what cleans up after sending; the bus decides when to call it. Returns the bus's status. */
int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc clean);

#ifdef __cplusplus
}
#endif

#endif
