/* What stands in a trace of the bus: pcapng files of one section and one interface, each readable alone.
 *
 * A packet is a message that crossed the bus, or a note of the recorder: TRACE_HEADER_BYTES of header, little-endian,
 * then the payload as it lay in memory. What time it is comes from the clock at the begin of the call. A packet
 * captured shorter than its original length is a message that was cut, because it is longer than 256 KiB, which readers
 * refuse, or than a file of the trace has room for, or that has no bytes to be read. Packets stand in the order in
 * which their places were taken, which among threads need not quite be that of their times.
 *
 * Recorder and readers agree on this file; it needs nothing but C. */
#ifndef CAPTURE_FORMAT_H
#define CAPTURE_FORMAT_H

#include <stdint.h>

/* pcapng as the recorder writes it; its byte order is the writer's, so that readers take either. */
#define TRACE_SECTION_BLOCK 0x0A0D0D0Au
#define TRACE_INTERFACE_BLOCK 1u
#define TRACE_PACKET_BLOCK 6u /* with the option epb_flags: received is inbound, sent outbound, a note neither */
#define TRACE_FILLER_BLOCK \
  0x80000051u /* of the range for local use, which readers skip; whatever it holds, or nothing */
#define TRACE_BYTE_ORDER 0x1A2B3C4Du
#define TRACE_LINK_TYPE 147u /* the first of those left to users */
#define TRACE_TIME_DIGITS 9u /* nanoseconds of CLOCK_REALTIME */
#define TRACE_INBOUND 1u
#define TRACE_OUTBOUND 2u

/* A file of the ring: TRACE_FILE_PREFIX PROGRAM - PROCESS ID . NUMBER TRACE_FILE_SUFFIX. The numbers of a process's
 * files count from 0, the largest is the latest. */
#define TRACE_FILE_PREFIX "quopa-"
#define TRACE_FILE_SUFFIX ".pcapng"

/* The header of a packet: where its fields stand. */
#define TRACE_MAGIC_AT 0   /* "QT" */
#define TRACE_VERSION_AT 2 /* u8: TRACE_VERSION */
#define TRACE_KIND_AT 3    /* u8: TraceKind */
#define TRACE_ID_AT 4      /* u32: message ID; 0 for a note */
#define TRACE_HANDLE_AT 8  /* u32: that the message was sent with; the pointer width in bits in the note "program" */
#define TRACE_DESTINATION_AT 12 /* u32: that the message was sent to; 0 is the handle's own */
#define TRACE_STATUS_AT 16      /* s32: what the bus or the decoder said, see below */
#define TRACE_INDEX_AT 20       /* u32: of the message in its call, from 0 */
#define TRACE_COUNT_AT 24       /* u32: messages in the call */
#define TRACE_THREAD_AT 28      /* u32: thread ID; the process ID in the note "program" */
#define TRACE_HEADER_BYTES 32

#define TRACE_VERSION 1

typedef enum TraceKind { TRACE_SENT = 0, TRACE_RECEIVED = 1, TRACE_NOTE = 2 } TraceKind;

/* Status of a sent message: the bus's. Of a received one: 0, or TRACE_GIVEN_UP when the decoder returned no size. The
 * decoders of libdrix_fib6 return the record's size for good and for bad buffers, so it takes a look at the payload to
 * tell these apart. TRACE_NO_ANSWER: the call had not returned when the trace ended, or when its file was reused. */
#define TRACE_GIVEN_UP (-1)
#define TRACE_NO_ANSWER INT32_MIN

/* Notes are text in UTF-8. The first word names the note, its value follows after one blank, of the schema after a line
 * feed. At the start of every file stand, in this order, program and schema, and unwrapped or a filler in its place.
 *
 *   program NAME     the program
 *   schema\nTEXT     all message types, as quopa types --schema prints them
 *   lost N           N messages could not be written since the last such note
 *   unwrapped N      N decoders were registered beyond what the recorder can see; messages to them are not recorded */
#define TRACE_NOTE_PROGRAM "program "
#define TRACE_NOTE_SCHEMA "schema\n"
#define TRACE_NOTE_LOST "lost "
#define TRACE_NOTE_UNWRAPPED "unwrapped "

#endif
