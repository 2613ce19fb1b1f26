/* The operations of every message type of libdrix_fib6, and the functions of its packages.
 *
 * A message type X is a plain structure, the record, named after its package and message: fib6_cfg_query_comm_param,
 * for example. Its members f0, f1, ... stand in slot order, and the library gives them no meaning. A byte string in
 * slot N is the pair f<N>Len (number of bytes) and f<N>, a vector of records the pair f<N>Count (number of elements)
 * and f<N>. A type with one of these, in its record or in one embedded there, is of variable length, and its decoded
 * records own memory; any other type is of fixed length and owns nothing. docs/wire-format.md shows the bytes.
 *
 * All functions may be called from any thread; a record belongs to one thread at a time. An operation may call the
 * platform's log writer and allocator, which must return and must not call operations of the same package;
 * docs/robustness.md says why.
 *
 * The operations of a message type X:
 *
 *   int32_t X__pack(const X *record, uint8_t *buffer, uint32_t *length);
 *     Encodes the record in the compact layout. *length is the capacity of the buffer in bytes on entry and the encoded
 *     length on success. The record and all that it points to stay the caller's and are only read. The buffer needs no
 *     alignment and does not overlap the record.
 *
 *     Returns 0, or -1 for a null argument, a capacity that is too small or an encoding longer than 0xFFFFFFFF bytes;
 *     *length is then unchanged. A null buffer of sufficient capacity is logged, the other errors are not.
 *
 *   uint32_t X__unpack(const uint8_t *buffer, uint32_t length, X *record);
 *     Decodes a buffer of 4 to 0x7FFFFFFF bytes, in either layout, into the record, which does not overlap it. Byte
 *     strings and element arrays are allocated and belong to the record until X_free__unpacked. Unless the record is
 *     not touched, its former content is overwritten, not released, and the bytes between its members are zero.
 *
 *     Returns sizeof(X) on every path. Whether the buffer was good shows in the record and partly in the log:
 *
 *     - The buffer is rejected whole for null arguments, another length, or a root offset or root vtable out of range:
 *       logged, and the record is not touched.
 *     - Decoding ends at an embedded table or an element whose position or vtable is out of range, and at an allocation
 *       that fails: logged.
 *     - Decoding ends at a field, a count or an element out of range, and at an offset that wraps past 32 bits: not
 *       logged.
 *
 *     Where decoding ends early, a type that owns nothing keeps the members decoded so far and has zeros in the others.
 *     Of a type that owns memory all blocks are freed and their pointers null; lengths and counts that were read stay.
 *
 *     If the buffer changes meanwhile, the values may be any, but no byte out of bounds is accessed.
 *
 *   void X_free__unpacked(X *record);
 *     Frees what X__unpack allocated and sets those pointers to null; lengths and counts stay. Harmless on null, on a
 *     record released before and on types that own nothing. Not for records that the caller filled.
 *
 *   int32_t X__sendmsg(uint32_t handle, const X *records, uint32_t count);
 *   int32_t X__sendtomsg(uint32_t handle, const X *records, uint32_t count, uint32_t destination);
 *     Encode count records and hand them to the bus in one call, for the default destination of the bus handle or for
 *     the given one (0: the default one). The records are only read, and not needed any more on return.
 *
 *     Return the bus's own status unchanged, or -1 with nothing sent: null records, count 0, out of memory, a record
 *     whose encoding is longer than 0xFFFFFFFF bytes, records that together would need an allocation of more than
 *     0xFFFFFFFF bytes, or, when count is above 1, records of a variable-length type whose encodings together need more
 *     than 64 KiB.
 *
 *   int32_t X__sendsingle(uint32_t handle, const X *record, uint32_t count, uint32_t destination);
 *     As X__sendtomsg for one record, whatever count says.
 *
 *   int32_t X__sendbatch(uint32_t handle, const X *records, uint32_t count, uint32_t destination);
 *     As X__sendtomsg for a count above 1, whatever count says: for count 0 the bus is called as well, and one record
 *     of a variable-length type may need no more than 64 KiB.
 *
 * The functions of a package, which start with its prefix P: fib6_cfg, fib6 (korBrokerFib6) or fib6_sync (fib6Sync):
 *
 *   int32_t P_recv_init(void);
 *     Registers the decoder and the release function of every message type of the package with the bus. A process that
 *     receives calls it once, when it starts. Returns 0, or the first non-zero result of the bus; the types registered
 *     before it stay registered.
 *
 *   int32_t P_send_init(void);
 *     Registers the package's resource-clean hook with the bus and returns the bus's result.
 *
 *   void P__send_resource_clean(void);
 *     That hook. Sending keeps no resources between calls, so it does nothing.
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

/* Declares the operations of a message type; each package's header has it do so for every type of its list. */
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

/* Declares the functions of a package. */
#define DRIX_DECLARE_PACKAGE(prefix)         \
  DRIX_API int32_t prefix##_recv_init(void); \
  DRIX_API int32_t prefix##_send_init(void); \
  DRIX_API void prefix##__send_resource_clean(void);

#endif
