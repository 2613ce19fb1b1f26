/* libkelvodrix: a stand-in for the platform's message bus, between the processes of one host over plain stream sockets,
 * and between hosts over NATS servers.
 *
 * It provides the four functions that libdrix_fib6 imports (drix_bus.h) and, declared here, what a process needs beside
 * them: channels to send on and receivers to receive with.
 *
 * Endpoints. A receiver binds its endpoint, channels connect to it, in any order.
 *
 *   ipc://PATH, or PATH with a slash   between a user's processes (and root's) on one host; a socket file with a lock
 *                                      file beside it, which go with the receiver
 *   NAME                               the same in a folder of the user's own, /tmp/kelvodrix-UID
 *   inproc://NAME                      inside a process
 *   nats://HOST:PORT[,HOST:PORT...]/NAME, or tls://
 *                                      between hosts, through a NATS server or a cluster of them, see docs/cluster.md;
 *                                      credentials come from the file that the variable KELVODRIX_NATS names
 *   nats-stream://HOST:PORT[,HOST:PORT...]/TABLE, or tls-stream://
 *                                      to a stream of such servers, which keeps what is sent; received from with
 *                                      /RECEIVER[?from=table|resume|now] behind it: all that there is, what is not
 *                                      handled (and if nothing was yet, all), or what is sent from now on
 *
 * Delivery. One DRIX_SendMsg or DRIX_SendToMsg call travels as one frame, whole or not at all. Frames to one endpoint
 * are handled in the order in which they were sent, each at most once. The receiver acknowledges a frame after it has
 * handled every message in it: a handled message was either delivered to its subscriber or is counted in one of the
 * receiver's other counters. It acknowledges all that is at hand together, at the latest every 64 frames. The channel
 * counts what it sent until it is acknowledged, so nothing is lost silently: what a connection leaves unacknowledged
 * when it ends, because the receiver was destroyed or killed, stays counted as undelivered. The next send connects
 * again. Nothing is sent twice. Through a server, frames are lost, and stay counted, also when the receiver stands
 * still for 10 s or a connection to the server ends.
 *
 * A stream is different. A channel counts a frame until the stream has stored it and every receiver that has a name
 * there has handled it, keeps it until it is stored, and sends it again as often as that takes. Frames are handled in
 * the order in which they were sent, each at least once by each receiver: those that one had handled and not yet
 * acknowledged when it ended come again to the next one of its name, and a frame whose subscriber ended the thread
 * does. Nothing waits for receivers, and there may be none. The table's writer is the one that has begun to send last:
 * what a former one sends is refused, with KELVODRIX_ERR_WRITER from the next send on, and stays counted. Small calls that
 * follow each other while frames are under way share a frame, which is handled to its end when the receiver is stopped.
 *
 * A process that ends with open channels, by exit() or the return of main, still gives to the operating system what its
 * sends have left, and waits for room as long as a send on the channel would. Only a flush or kelvodrix_close shows
 * whether it was handled. A process that is killed, or calls _exit or exec, leaves such frames unsent.
 *
 * Bounds. A channel keeps at most its window of unacknowledged frames and bytes per endpoint, a receiver at most one
 * unfinished frame per connection and 256 KiB for an idle one. No frame is larger than KELVODRIX_MAX_FRAME_BYTES or
 * holds more than KELVODRIX_MAX_FRAME_MESSAGES, which also bounds what its decoding may log. A peer that sends anything
 * malformed is disconnected; through a server, its frame is dropped, and never acknowledged but where it stands in a
 * stream. A stream takes as many bytes as its settings say, and sends return KELVODRIX_ERR_FULL then until a checkpoint
 * or something else has made room. A receiver at a server queues 256 MiB, and what is sent beyond that is lost, and counted
 * by its sender.
 *
 * All functions may be called from any thread; none but kelvodrix_run is a cancellation point. A process that opens a
 * channel gets one thread, which takes no signals; the library cannot be unloaded. Channels and receivers do not
 * survive fork(): a child, which may be made at any time, knows none of its parent's channels, opens its own, and keeps
 * its parent's endpoints taken until it ends or calls exec. A child whose parent has used a server can use none, and
 * until it ends, the server may take its parent for alive.
 */
#ifndef KELVODRIX_H
#define KELVODRIX_H

#include <stdint.h>

#include "drix_bus.h"

#ifdef __cplusplus
extern "C" {
#endif

/* A frame takes 20 bytes, and 8 bytes plus its length for every message. */
#define KELVODRIX_MAX_FRAME_BYTES (16u << 20)
#define KELVODRIX_MAX_FRAME_MESSAGES 65536u
#define KELVODRIX_MAX_RECORD_BYTES (64u << 10) /* of a decoded record */

/* The status of every bus function, the four of drix_bus.h included. -1 is left to the senders of libdrix_fib6. */
typedef enum kelvodrix_status {
  KELVODRIX_OK = 0,
  KELVODRIX_ERR_INVALID = -2,     /* a null or out-of-range argument */
  KELVODRIX_ERR_HANDLE = -3,      /* no such open channel */
  KELVODRIX_ERR_DESTINATION = -4, /* the channel has no such destination */
  KELVODRIX_ERR_ENDPOINT = -5,    /* malformed endpoint or unknown transport */
  KELVODRIX_ERR_BIND = -6,        /* the endpoint cannot be bound: no such directory, not writable, another file */
  KELVODRIX_ERR_IN_USE = -7,      /* another receiver is bound to the endpoint */
  KELVODRIX_ERR_NO_RECEIVER = -8, /* nobody was connected within the send timeout; nothing was queued */
  KELVODRIX_ERR_WINDOW = -9,      /* window or connection stayed full for the send timeout; nothing was queued */
  KELVODRIX_ERR_TOO_BIG = -10, /* the frame is above KELVODRIX_MAX_FRAME_*, the window's bytes, the server's payload */
  KELVODRIX_ERR_PENDING = -11, /* at the timeout some messages were still unacknowledged */
  KELVODRIX_ERR_LOST = -12,    /* every message is accounted for, but some were lost */
  KELVODRIX_ERR_BUSY = -13,    /* the receiver's loop is running */
  KELVODRIX_ERR_NO_MEMORY = -14, /* out of memory */
  KELVODRIX_ERR_SYSTEM = -15,    /* the operating system failed, or its file descriptors are used up */
  KELVODRIX_ERR_PATH = -16,      /* the endpoint's path or name is too long for a socket */
  KELVODRIX_ERR_FOLDER = -17,    /* the folder of named endpoints is another user's or open to others */
  KELVODRIX_ERR_TRANSPORT = -18, /* libkelvodrix_nats.so or libnats is missing or of another version */
  /* Of endpoints at a server. When a send returns one of these, nothing was queued. */
  KELVODRIX_ERR_SETTINGS = -19, /* the file that KELVODRIX_NATS names, or one named there, is unreadable or malformed */
  KELVODRIX_ERR_SERVER = -20,   /* no server answers */
  KELVODRIX_ERR_HOST = -21,     /* a host has no address */
  KELVODRIX_ERR_CREDENTIALS = -22, /* the server refuses the credentials, or they lack a right */
  KELVODRIX_ERR_CERTIFICATE = -23, /* a certificate does not fit, or one side of the connection has no TLS */
  KELVODRIX_ERR_FORKED = -24,      /* the process is a child of one that has used a server */
  /* Of streams. */
  KELVODRIX_ERR_STREAM = -25, /* the server keeps no streams, or not this one: no JetStream, no room, too few servers */
  KELVODRIX_ERR_WRITER = -26, /* another process has become the table's writer, or the stream was taken away */
  KELVODRIX_ERR_FULL = -27    /* the stream is full; nothing was queued */
} kelvodrix_status;

/* A status in words: static text, also for numbers that are no status. */
const char *kelvodrix_strerror(int32_t status);

/* ---- The functions of drix_bus.h ----
 *
 * DRIX_SendMsg and DRIX_SendToMsg copy the messages into one frame. 0 messages are KELVODRIX_OK and send nothing. When
 * they return anything but KELVODRIX_OK, nothing was or will be sent. A send that waits holds up nothing but the
 * channel's other sends to the same endpoint. A frame may leave the process up to a millisecond after its send; a flush
 * and kelvodrix_close send off what there is.
 *
 * DRIX_RegIDLFuncHook keeps one decoder per message ID and process; a further registration of an ID replaces the former
 * one from the next message on. A decoder always gets KELVODRIX_MAX_RECORD_BYTES to write its record to and must not
 * write past them. Records are cleared before they are decoded, and released after the subscriber has seen them,
 * whatever it did.
 *
 * DRIX_RegIDLResorceCleanFuncHook remembers a hook once, however often it is registered. The hooks are called in the
 * order of their registration each time the process closes its last channel.
 */

/* ---- Sending ---- */

typedef struct kelvodrix_options {
  uint32_t send_timeout_ms; /* how long a send may wait for a connection or for room in the window; 0: not at all */
  uint32_t window_frames;   /* bound of unacknowledged frames per endpoint, 1 to 65536 */
  uint32_t window_bytes;    /* bound of unacknowledged bytes per endpoint, not 0 */
} kelvodrix_options;

/* An initialiser for kelvodrix_options. */
#define KELVODRIX_OPTIONS_DEFAULT \
  { 1000u, 4096u, 32u << 20 }

/* Opens a channel whose default destination is the endpoint. options may be null for the default ones. On KELVODRIX_OK
 * *handle is what the send functions take, never 0; it is the caller's to close. Does not wait for the connection. */
int32_t kelvodrix_open(const char *endpoint, const kelvodrix_options *options, uint32_t *handle);

/* Adds a destination to a channel. On KELVODRIX_OK *destination is what DRIX_SendToMsg takes with this handle, never 0;
 * it lives as long as the channel. */
int32_t kelvodrix_destination(uint32_t handle, const char *endpoint, uint32_t *destination);

/* Waits until all that was sent, to any destination, is acknowledged or known to be lost, at most timeout_ms
 * milliseconds. *undelivered (may be null) is then the number of messages since kelvodrix_open that are not
 * acknowledged; it is written whenever the handle is good. Returns KELVODRIX_OK when that is 0, KELVODRIX_ERR_PENDING
 * when the time ran out, or KELVODRIX_ERR_LOST. */
int32_t kelvodrix_flush(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered);

/* As kelvodrix_flush, and closes the channel whatever the result. Messages still unacknowledged by then are abandoned;
 * those already on their way may yet arrive. A send that is still waiting returns KELVODRIX_ERR_HANDLE. */
int32_t kelvodrix_close(uint32_t handle, uint32_t timeout_ms, uint64_t *undelivered);

/* Says that what was sent since the last checkpoint, or since the channel was opened, is the whole table: as soon as it
 * is stored, the streams among the channel's destinations forget what was sent before. A flush waits for that. Does not
 * wait, and does nothing when nothing was sent or nothing is kept: other endpoints keep nothing. */
int32_t kelvodrix_checkpoint(uint32_t handle);

/* ---- Receiving ---- */

typedef struct kelvodrix_receiver kelvodrix_receiver;

/* Gets one decoded record of size bytes, which is valid until it returns. A rejected message is delivered too, as the
 * bus does not learn of the rejection: the decoder leaves what it could not read zero. */
typedef void (*kelvodrix_subscriber)(void *context, uint32_t id, const void *record, uint32_t size);

/* What happened to received messages, since the receiver was created and up to the last complete frame. */
typedef struct kelvodrix_counters {
  uint64_t frames;        /* handled */
  uint64_t messages;      /* the sum of the next four */
  uint64_t delivered;     /* subscriber called, returned */
  uint64_t failed;        /* subscriber called, left by a C++ exception or the end of its thread */
  uint64_t unknown_id;    /* no decoder registered */
  uint64_t no_subscriber; /* decoder registered, nobody subscribed */
  uint64_t malformed;     /* frames dropped whole, with their connection: bad header, bytes left over, ... */
} kelvodrix_counters;

/* Binds a receiver to an endpoint. On KELVODRIX_OK *receiver is the caller's to destroy. Frames are queued from now on,
 * within bounds, and handled by kelvodrix_run. */
int32_t kelvodrix_receiver_create(const char *endpoint, kelvodrix_receiver **receiver);

/* Has the messages with this ID given to subscriber(context, ...), on the thread that runs the loop and from the next
 * message on. One subscriber per ID: a further call replaces it, a null one removes it. A subscriber may call any
 * function but kelvodrix_run and kelvodrix_receiver_destroy on its own receiver. */
int32_t kelvodrix_subscribe(kelvodrix_receiver *receiver, uint32_t id, kelvodrix_subscriber subscriber, void *context);

/* Receives and handles frames on the calling thread until kelvodrix_stop; returns KELVODRIX_OK then, and another status
 * when it can go on no more, as when a server has come to refuse its credentials. May be called again afterwards. */
int32_t kelvodrix_run(kelvodrix_receiver *receiver);

/* Ends the loop after the frame being handled; when none is running, ends the next one at once. May be called from any
 * thread, from a subscriber and from a signal handler. */
void kelvodrix_stop(kelvodrix_receiver *receiver);

/* Copies the counters. */
void kelvodrix_get_counters(const kelvodrix_receiver *receiver, kelvodrix_counters *counters);

/* Unbinds and frees a receiver; frames not yet handled stay unacknowledged. KELVODRIX_ERR_BUSY while its loop runs.
 * Harmless on null. */
int32_t kelvodrix_receiver_destroy(kelvodrix_receiver *receiver);

/* ---- Looking on ----
 *
 * A tap sees the frames on their way through a server, or what a stream keeps. It is no receiver and acknowledges
 * nothing: senders and receivers notice nothing of it, and the server keeps nothing of it. Its endpoint is one to send
 * to, at a server, where a direct one may have a star for all names. Whoever taps has to keep up: what is left in the
 * queue beyond 64 MiB is lost to it, and counted. One thread may use a tap at a time. */

typedef struct kelvodrix_tap kelvodrix_tap;

typedef struct kelvodrix_tap_options {
  const uint32_t *ids; /* only frames in which messages with these IDs may be: the server holds back others if it can */
  uint32_t id_count;   /* 0: all frames */
  uint32_t follows;    /* of a stream: 0 for what it keeps now, else also what comes */
  uint64_t from;       /* of a stream: only what was stored from then on, in nanoseconds since 1970 */
} kelvodrix_tap_options;

typedef struct kelvodrix_frame {
  const char *name; /* the receiver's, or the table's */
  uint64_t time;    /* when it came, or was stored, in nanoseconds since 1970 */
  const DrixSendDescriptor *messages;
  uint32_t count; /* 0: the end of the stream, or after kelvodrix_tap_stop */
} kelvodrix_frame;

typedef struct kelvodrix_tap_counters {
  uint64_t frames;        /* seen */
  uint64_t malformed;     /* what was no frame of this version */
  uint64_t lost;          /* not seen, as the queue was full */
  uint64_t interruptions; /* of the connection; what went directly to receivers meanwhile was not seen */
} kelvodrix_tap_counters;

/* On KELVODRIX_OK *tap is the caller's to close, and what is sent from now on is seen. options may be null for all. */
int32_t kelvodrix_tap_open(const char *endpoint, const kelvodrix_tap_options *options, kelvodrix_tap **tap);

/* The next frame, valid until the next call. KELVODRIX_ERR_PENDING when nothing came in time, and the status of the
 * connection when that is why; it is made anew meanwhile. */
int32_t kelvodrix_tap_next(kelvodrix_tap *tap, uint32_t timeout_ms, kelvodrix_frame *frame);

/* Sees nothing of what is sent from now on; what was sent before is still given out. */
void kelvodrix_tap_stop(kelvodrix_tap *tap);

/* Copies the counters. */
void kelvodrix_tap_get_counters(const kelvodrix_tap *tap, kelvodrix_tap_counters *counters);

/* Harmless on null. */
void kelvodrix_tap_close(kelvodrix_tap *tap);

#ifdef __cplusplus
}
#endif

#endif
