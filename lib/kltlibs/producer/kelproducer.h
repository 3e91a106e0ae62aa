/* For programs that have something to tell: build an observation, send it to a context.
 *
 *     KelProducer *producer;
 *     int error = KelProducer_Open(KELPRODUCER_USER_CONTEXT, &producer);
 *     if (error == 0)
 *         error = KelProducer_Emit(producer, "kel.external.error", "%s %s %s", name, link, message);
 *     int closed = KelProducer_Close(producer); // 0: the daemon has it
 *
 * Plain C; needs nothing but libc. A producer belongs to one thread at a time. Results are 0 or an
 * errno value.
 */
#ifndef KELPRODUCER_H
#define KELPRODUCER_H

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum {
    KELPRODUCER_ASYNC_CONTEXTS = 22,        /* contexts 0-21: one datagram, one batch */
    KELPRODUCER_USER_CONTEXT = 22,          /* a connection; the daemon serves eight at a time */
    KELPRODUCER_RECORD_BYTES_MAX = 0x1FFFF, /* no record and no batch is larger */
};

/* The time stamp of a record: microseconds since the epoch, or this for the time of the call. */
#define KELPRODUCER_NOW UINT64_MAX

/* Builds one record in buffer. format is printf-style, %d %u %x %o %i %c %s with h hh l ll z, flags,
 * widths and precisions; at most 32 arguments; a null string is allowed.
 *
 * 0 with *length bytes written. EINVAL for an ID that is empty, longer than 127 characters or made of
 * others than A-Z a-z 0-9 . _ -; for a format that cannot be packed; for too many arguments. ENOSPC
 * when size bytes, or 0x1FFFF, are too few. */
int KelRecord_Build(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                    const char *format, ...) __attribute__((format(printf, 6, 7)));
int KelRecord_BuildVA(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                      const char *format, va_list args) __attribute__((format(printf, 6, 0)));

/* One argument that is known only at run time. */
typedef struct KelProducerArg {
    uint32_t type;    /* the packed area's code: 1 and 3 signed and unsigned 32 bits, 2 and 4 64, 6 text */
    uint64_t integer; /* of a signed one: extended to 64 bits */
    const char *string; /* of a text: null is allowed */
} KelProducerArg;

/* KelRecord_Build for arguments from a command line or a file. EINVAL also when count or a type is
 * not what the conversions of format ask for. */
int KelRecord_BuildFromArgs(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                            const char *format, const KelProducerArg *args, size_t count);

typedef struct KelProducer KelProducer;

/* Connects to a context of the daemon in the run directory.
 *
 * 0 with *producer the caller's, to be ended with KelProducer_Close. EINVAL for a context out of
 * range; ENOENT or ECONNREFUSED when no daemon serves the run directory; EACCES. */
int KelProducer_Open(int context, KelProducer **producer);

/* Sends a batch of whole records, built by KelRecord_Build, back to back. Waits while the daemon is
 * busy. EPIPE or ECONNREFUSED when the daemon has gone or has closed the connection (a ninth
 * producer's, at once); SIGPIPE is not raised. */
int KelProducer_Send(KelProducer *producer, const void *records, size_t length);

/* For a poll: writable when a batch will be taken without waiting. The producer's own; not to be closed. */
int KelProducer_Fd(const KelProducer *producer);

/* Builds one record with the present time and sends it. */
int KelProducer_Emit(KelProducer *producer, const char *id, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* Ends the connection, and says whether the daemon has read what was sent: on the user-level context it
 * waits for that, 5 seconds at most. Null is allowed.
 *
 * 0: it has; on an asynchronous context, what was sent waits in the daemon's queue, from which nothing is
 * dropped. EPIPE: it has not: the daemon serves eight producers at a time and has turned this one away, or
 * it has ended. Of several batches the last at least was not read; try again. ETIMEDOUT: not known; the
 * daemon is busy, and what was sent still waits for it. */
int KelProducer_Close(KelProducer *producer);

#ifdef __cplusplus
}
#endif
#endif
