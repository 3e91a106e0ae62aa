// Building observations and sending them.
//
// Linked into plain C programs: libc alone, no exceptions.
#include "kelproducer.h"

#include "kelId.h"
#include "kelproducerRecord.h"
#include "kltlibs/kelrecord.h"
#include "kltlibs/msgfmt.h"
#include "kltlibs/rundir.h"

#include <errno.h>
#include <poll.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

struct KelProducer {
    int fd;
    bool connection; // not a datagram socket
};

namespace {

constexpr int kEndMilliseconds = 5000;
constexpr size_t kEmitBytes = 2048; // nearly every observation; the others take memory from the heap

uint64_t Now()
{
    timeval now;
    gettimeofday(&now, nullptr);
    return static_cast<uint64_t>(now.tv_sec) * 1000000 + static_cast<uint64_t>(now.tv_usec);
}

// 0 for a format of at most 32 packable conversions.
int CheckFormat(const char *format)
{
    const char *start;
    MsgFmtType type;
    for (int count = 0; count <= KELRECORD_ARGUMENTS_MAX; ++count) {
        const int error = MsgFmt_NextConversion(&format, &start, &type);
        if (error != 0) return error == ENOENT ? 0 : error;
    }
    return EINVAL;
}

void PutWord(char *record, uint32_t offset, size_t value)
{
    const uint32_t word = static_cast<uint32_t>(value);
    memcpy(record + offset, &word, sizeof word);
}

// Tells the daemon that nothing more comes, and waits until it has read what did: a socket that is closed
// with something unread resets its peer. 0, EPIPE or ETIMEDOUT.
int AwaitEnd(int fd)
{
    if (shutdown(fd, SHUT_WR) != 0) return EPIPE;
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    const int64_t until = now.tv_sec * int64_t{1000} + now.tv_nsec / 1000000 + kEndMilliseconds;
    for (;;) {
        clock_gettime(CLOCK_MONOTONIC, &now);
        const int64_t left = until - (now.tv_sec * int64_t{1000} + now.tv_nsec / 1000000);
        pollfd end = {fd, POLLIN, 0};
        if (left <= 0 || poll(&end, 1, static_cast<int>(left)) == 0) return ETIMEDOUT;
        char nothing;
        const ssize_t count = recv(fd, &nothing, sizeof nothing, MSG_DONTWAIT);
        if (count == 0) return 0;
        if (count < 0 && errno != EINTR && errno != EAGAIN) return EPIPE;
    }
}

int EmitVA(KelProducer *producer, void *buffer, size_t size, const char *id, const char *format,
           va_list args) __attribute__((format(printf, 5, 0)));

int EmitVA(KelProducer *producer, void *buffer, size_t size, const char *id, const char *format,
           va_list args)
{
    size_t length;
    const int error = KelRecord_BuildVA(buffer, size, &length, KELPRODUCER_NOW, id, format, args);
    return error != 0 ? error : KelProducer_Send(producer, buffer, length);
}

} // namespace

int KelRecord_Start(void *buffer, size_t size, const char *id, const char *format, KelRecordShape *shape)
{
    const size_t idChars = strnlen(id, KELRECORD_ID_CHARS_MAX + 1);
    if (idChars == 0 || idChars > KELRECORD_ID_CHARS_MAX || KelId_Span(id, idChars) != idChars)
        return EINVAL;
    if (size > KELPRODUCER_RECORD_BYTES_MAX) size = KELPRODUCER_RECORD_BYTES_MAX;
    const size_t message = KELRECORD_HEADER_BYTES + idChars + 1;
    const size_t messageBytes = strlen(format) + 1;
    if (size < message || size - message < messageBytes) return ENOSPC;

    *shape = {static_cast<char *>(buffer), size, message + messageBytes};
    memcpy(shape->record + KELRECORD_HEADER_BYTES, id, idChars + 1);
    memcpy(shape->record + message, format, messageBytes);
    PutWord(shape->record, KELRECORD_MESSAGE_FORMAT_AT, message);
    PutWord(shape->record, KELRECORD_ARGUMENT_AREA_AT, shape->area);
    PutWord(shape->record, KELRECORD_ID_LENGTH_AT, idChars + 1);
    return 0;
}

size_t KelRecord_Finish(const KelRecordShape &shape, uint64_t timestamp, size_t count, size_t areaBytes)
{
    if (timestamp == KELPRODUCER_NOW) timestamp = Now();
    memcpy(shape.record, &timestamp, sizeof timestamp);
    memcpy(shape.record + KELRECORD_MAGIC_AT, KELRECORD_MAGIC, 4);
    PutWord(shape.record, KELRECORD_ARGUMENT_COUNT_AT, count);
    PutWord(shape.record, KELRECORD_TOTAL_LENGTH_AT, shape.area + areaBytes);
    return shape.area + areaBytes;
}

int KelRecord_BuildVA(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                      const char *format, va_list args)
{
    if (const int error = CheckFormat(format); error != 0) return error;
    KelRecordShape shape;
    if (const int error = KelRecord_Start(buffer, size, id, format, &shape); error != 0) return error;
    char *area = shape.record + shape.area;
    size_t areaBytes;
    uint32_t count;
    const int error =
        MsgFmt_GetArgsWithBuf(format, args, area, shape.size - shape.area, &areaBytes, &count);
    if (error != 0) return error;
    MsgFmt_SwizzleArgs(area, count);
    *length = KelRecord_Finish(shape, timestamp, count, areaBytes);
    return 0;
}

int KelRecord_Build(void *buffer, size_t size, size_t *length, uint64_t timestamp, const char *id,
                    const char *format, ...)
{
    va_list args;
    va_start(args, format);
    const int error = KelRecord_BuildVA(buffer, size, length, timestamp, id, format, args);
    va_end(args);
    return error;
}

int KelProducer_Open(int context, KelProducer **producer)
{
    *producer = nullptr;
    if (context < 0 || context > KELPRODUCER_USER_CONTEXT) return EINVAL;
    char name[32] = "kel/user.sock";
    if (context < KELPRODUCER_ASYNC_CONTEXTS) snprintf(name, sizeof name, "kel/async-%d.sock", context);
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (const int error = KltRunDir_Path(name, address.sun_path, sizeof address.sun_path); error != 0)
        return error;

    const int type = context == KELPRODUCER_USER_CONTEXT ? SOCK_SEQPACKET : SOCK_DGRAM;
    const int fd = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (fd < 0) return errno;
    KelProducer *opened = nullptr;
    int error = 0;
    if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        error = errno;
    else if ((opened = static_cast<KelProducer *>(malloc(sizeof *opened))) == nullptr)
        error = ENOMEM;
    if (error != 0) {
        close(fd);
        return error;
    }
    opened->fd = fd;
    opened->connection = type == SOCK_SEQPACKET;
    *producer = opened;
    return 0;
}

int KelProducer_Send(KelProducer *producer, const void *records, size_t length)
{
    if (length == 0) return 0; // an empty packet would end the stream
    if (length > KELPRODUCER_RECORD_BYTES_MAX) return EMSGSIZE;
    while (send(producer->fd, records, length, MSG_NOSIGNAL) < 0) {
        switch (errno) {
        case EINTR:
            break;
        case ECONNRESET:
            return EPIPE;
        case ENOTCONN: // a second try after ECONNREFUSED
            return ECONNREFUSED;
        default:
            return errno;
        }
    }
    return 0;
}

int KelProducer_Fd(const KelProducer *producer) { return producer->fd; }

int KelProducer_Emit(KelProducer *producer, const char *id, const char *format, ...)
{
    char small[kEmitBytes];
    va_list args;
    va_start(args, format);
    int error = EmitVA(producer, small, sizeof small, id, format, args);
    va_end(args);
    if (error != ENOSPC) return error;

    void *large = malloc(KELPRODUCER_RECORD_BYTES_MAX);
    if (large == nullptr) return ENOMEM;
    va_start(args, format);
    error = EmitVA(producer, large, KELPRODUCER_RECORD_BYTES_MAX, id, format, args);
    va_end(args);
    free(large);
    return error;
}

int KelProducer_Close(KelProducer *producer)
{
    if (producer == nullptr) return 0;
    const int result = producer->connection ? AwaitEnd(producer->fd) : 0;
    close(producer->fd);
    free(producer);
    return result;
}
