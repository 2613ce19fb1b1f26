/* The operations that every message type of libdrix_fib6 offers.
 *
 * A message type X is a plain structure, the record, named after its package and message (for example
 * fib6_cfg_query_comm_param). Its members stand in slot order and are named f0, f1, ... A byte string in slot N is the
 * pair f<N>Len (number of bytes) and f<N>; a vector of records is the pair f<N>Count (number of elements) and f<N>.
 *
 * DRIX_DECLARE_MESSAGE(package, message) declares the seven operations. For X they read:
 *
 *   int32_t X__pack(const X *record, uint8_t *buffer, uint32_t *length);
 *     Encodes the record in the compact layout. *length is the capacity of the buffer in bytes on entry and the encoded
 *     length on success. Returns 0, or -1 for a null argument, a capacity that is too small or an encoding longer than
 *     0xFFFFFFFF bytes; *length is then unchanged. A null buffer of sufficient capacity is logged, the rest is not. The
 *     record and all that it points to stay the caller's and are only read. The buffer needs no alignment and does not
 *     overlap the record.
 *
 *   uint32_t X__unpack(const uint8_t *buffer, uint32_t length, X *record);
 *     Decodes a buffer of either layout, of 4 to 0x7FFFFFFF bytes, into the record, which does not overlap it. Returns
 *     sizeof(X) on every path; what became of a buffer shows in the record and partly in the platform's log:
 *     - Null arguments, another length, a root offset or a root vtable out of range: logged, and the record is not
 *       touched. In all other cases its former content is overwritten, not released.
 *     - An embedded table or an element whose place or vtable is out of range, or memory that is not to be had: logged,
 *       and decoding ends there.
 *     - A field, a count or an element out of range, or an offset that wraps past 32 bits: not logged, and decoding
 * ends there. Where decoding ends early, a type that owns nothing keeps the members decoded so far and has zeros in the
 * others; of a type that owns memory all blocks are given back, their pointers are null, and lengths and counts that
 * were read stay. Otherwise byte strings and element arrays are allocated and belong to the record until
 *     X_free__unpacked. The bytes between the members are zero in every record that was not left untouched. The buffer
 * may change meanwhile: the values are then any, but no byte out of bounds is accessed.
 *
 *   void X_free__unpacked(X *record);
 *     Gives back what X__unpack allocated and sets those pointers to null; lengths and counts stay. Harmless on null,
 * on a record released before and on types that own nothing. Not for records that the caller filled.
 *
 *   int32_t X__sendmsg(uint32_t handle, const X *records, uint32_t count);
 *   int32_t X__sendtomsg(uint32_t handle, const X *records, uint32_t count, uint32_t destination);
 *     Encode count records and hand them to the bus in one call, for the default destination of the bus handle or for
 *     the given one (0: the default one). Return the bus's own status unchanged, or -1 with nothing sent: null records,
 *     count 0, out of memory, a record whose encoding is longer than 0xFFFFFFFF bytes, records that together would need
 *     an allocation of more than 0xFFFFFFFF bytes, or, when count is above 1, records of a variable-length type whose
 *     encodings together need more than 64 KiB. The records are only read, and not needed any more on return.
 *
 *   int32_t X__sendsingle(uint32_t handle, const X *record, uint32_t count, uint32_t destination);
 *     Sends one record whatever count says.
 *
 *   int32_t X__sendbatch(uint32_t handle, const X *records, uint32_t count, uint32_t destination);
 *     Sends count records as X__sendtomsg does a count above 1. So the bus is called for count 0 as well, and one
 * record of a variable-length type may need no more than 64 KiB.
 *
 * All operations may be called from any thread; a record belongs to one thread at a time. An operation may ask the
 * platform's services, which must return and must not call operations of the same package; docs/robustness.md says why.
 */
#ifndef DRIX_MESSAGE_H
#define DRIX_MESSAGE_H

#include <stdint.h>

#define DRIX_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define DRIX_CONSTANT_FUNCTION constexpr
#else
#define DRIX_CONSTANT_FUNCTION static inline
#endif

/* One call for each character: C++11 allows no loop in a constant expression. */
DRIX_CONSTANT_FUNCTION uint32_t drix_message_id_from(const char *rest, uint32_t hash) {
  return *rest == '\0' ? hash : drix_message_id_from(rest + 1, (hash ^ (uint8_t)*rest) * 0x01000193u);
}

/* The ID under which a message travels on the bus, for example drix_message_id("fib6_cfg.query_comm_param"): the 32-bit
 * FNV-1a hash of package name, full stop and message name. */
DRIX_CONSTANT_FUNCTION uint32_t drix_message_id(const char *name) { return drix_message_id_from(name, 0x811C9DC5u); }

#define DRIX_DECLARE_MESSAGE(package, message)                                                                        \
  DRIX_API int32_t package##_##message##__pack(const package##_##message *record, uint8_t *buffer, uint32_t *length); \
  DRIX_API uint32_t package##_##message##__unpack(const uint8_t *buffer, uint32_t length,                             \
                                                  package##_##message *record);                                       \
  DRIX_API void package##_##message##_free__unpacked(package##_##message *record);                                    \
  DRIX_API int32_t package##_##message##__sendmsg(uint32_t handle, const package##_##message *records,                \
                                                  uint32_t count);                                                    \
  DRIX_API int32_t package##_##message##__sendtomsg(uint32_t handle, const package##_##message *records,              \
                                                    uint32_t count, uint32_t destination);                            \
  DRIX_API int32_t package##_##message##__sendsingle(uint32_t handle, const package##_##message *record,              \
                                                     uint32_t count, uint32_t destination);                           \
  DRIX_API int32_t package##_##message##__sendbatch(uint32_t handle, const package##_##message *records,              \
                                                    uint32_t count, uint32_t destination);

/* The functions of a package whose functions start with prefix:
 *
 *   int32_t prefix_recv_init(void);
 *     Registers the decoder and the release function of every message type of the package with the bus. Returns 0, or
 *     the first non-zero result of the bus; the types registered before it stay registered.
 *
 *   int32_t prefix_send_init(void);
 *     Registers the package's resource-clean hook with the bus and returns the bus's result.
 *
 *   void prefix__send_resource_clean(void);
 *     That hook. Sending keeps no resources between calls, so it does nothing.
 */
#define DRIX_DECLARE_PACKAGE(prefix)         \
  DRIX_API int32_t prefix##_recv_init(void); \
  DRIX_API int32_t prefix##_send_init(void); \
  DRIX_API void prefix##__send_resource_clean(void);

#endif
