// Whole, valid records out of the channels.
//
// A datagram that does not fit the caller's buffer has to wait. Once received it cannot be put back, and to
// look at each one first would cost as much again as receiving it. So datagrams of asynchronous contexts,
// which carry nearly everything, are received into memory of the library's own; the library looks first
// only when one as large as the last would not fit. A datagram that does not fit all the same is kept, and
// the channel sends itself an empty one, its bell, so that poll goes on reporting that something waits. A
// connection cannot send to itself: there the library always looks first.
#include "kltlibs/kel.h"

#include "diagnostic.h"
#include "kelChannel.h"
#include "kelValidate.h"
#include "kltlibs/ktime.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <poll.h>
#include <sys/socket.h>

namespace {

// How many datagrams one read drops at most: a producer that sends nothing but rubbish must not keep the
// caller from its other channels. Only what a producer that has ended has left behind is read to its end,
// which is finite: the caller closes a connection that has hung up and gave nothing.
constexpr int kDropsPerReadMax = 4096;

// The diagnostic lines of one channel: ten in a window that opens with its first line, the number of
// those held back with the first line behind it.
class DropLog {
public:
    void Write(const char *channel, std::size_t bytes, const char *reason)
    {
        constexpr std::uint64_t windowSeconds = 60;
        constexpr std::uint32_t linesMax = 10;
        const std::uint64_t now = KTime_MonotonicSeconds();
        if (!mWindowStart || now - *mWindowStart >= windowSeconds) {
            mWindowStart = now;
            mLines = 0;
        }
        if (mLines == linesMax) {
            ++mSuppressed;
            return;
        }
        ++mLines;
        if (mSuppressed == 0)
            KltDiagnose("%s: dropped %zu bytes: %s", channel, bytes, reason);
        else
            KltDiagnose("%s: dropped %zu bytes: %s (%llu more suppressed)", channel, bytes, reason,
                        mSuppressed);
        mSuppressed = 0;
    }

private:
    std::optional<std::uint64_t> mWindowStart;
    std::uint32_t mLines = 0;
    unsigned long long mSuppressed = 0;
};

std::array<DropLog, KELLIB_USER_CONTEXT + 1> dropLogs; // by context; main thread only
KelLibDropObserver dropObserver = nullptr;             // likewise

// Where datagrams are received. The kernel makes none of more than 4 MiB and a few pages; only what is
// used becomes resident.
constexpr std::size_t kArenaBytes = 8 << 20;
char arena[kArenaBytes];

void LogDrop(int context, std::size_t bytes, const char *reason)
{
    char name[KELLIB_NAME_BYTES_MAX];
    KelChannel_Name(context, name);
    dropLogs[static_cast<std::size_t>(context)].Write(name, bytes, reason);
    if (dropObserver != nullptr) dropObserver(context, bytes, reason);
}

// What one read has gathered so far in the caller's buffer.
struct Batch {
    int context;
    char *buffer;
    std::size_t size;
    std::size_t used = 0;
    int drops = 0;

    bool Fits(std::size_t length) const
    {
        const std::size_t limit = used == 0 ? size : std::min<std::size_t>(size, KELLIB_BATCH_BYTES_MAX);
        return used <= limit && length <= limit - used;
    }

    void Add(const char *datagram, std::size_t length)
    {
        KelFaultText fault;
        if (KelValidate_Batch(datagram, length, &fault)) {
            std::memcpy(buffer + used, datagram, length);
            used += length;
        } else {
            Drop(length, fault.data());
        }
    }

    void Drop(std::size_t length, const char *reason)
    {
        LogDrop(context, length, reason);
        ++drops;
    }

    // The result of a read that an error or the lack of room ends: what was gathered comes first.
    int End(int status) const { return used > 0 || status == EAGAIN ? 0 : status; }
};

// The next datagram, valid until the next call; negative with errno.
ssize_t Receive(KelLibHandle &handle, const char **datagram)
{
    if (handle.kept != nullptr) {
        *datagram = handle.kept.get();
        return static_cast<ssize_t>(handle.keptBytes);
    }
    *datagram = arena;
    ssize_t length = recv(handle.fd.Get(), arena, sizeof arena, MSG_DONTWAIT);
    while (length == 0 && handle.bells > 0) {
        --handle.bells;
        length = recv(handle.fd.Get(), arena, sizeof arena, MSG_DONTWAIT);
    }
    return length;
}

// Keeps what Receive gave, for the next call to give it again.
int Keep(KelLibHandle &handle, const char *datagram, std::size_t length)
{
    if (handle.kept != nullptr) return 0;
    handle.kept.reset(new (std::nothrow) char[length]);
    if (handle.kept == nullptr) return ENOMEM;
    std::memcpy(handle.kept.get(), datagram, length);
    handle.keptBytes = length;
    const sockaddr_un address = KelChannel_Address(handle);
    if (sendto(handle.fd.Get(), nullptr, 0, MSG_DONTWAIT | MSG_NOSIGNAL,
               reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0)
        ++handle.bells;
    return 0;
}

// The length of the next datagram, which stays where it is; negative with errno.
ssize_t Look(int fd) { return recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT); }

int ReadChannel(KelLibHandle &handle, Batch &batch)
{
    std::size_t last = 0;
    while (batch.drops < kDropsPerReadMax) {
        if (batch.used > 0 && !batch.Fits(last)) {
            const ssize_t next = Look(handle.fd.Get());
            if (next < 0 || !batch.Fits(static_cast<std::size_t>(next))) return 0;
        }
        const char *datagram;
        const ssize_t received = Receive(handle, &datagram);
        if (received < 0) return batch.End(errno);
        const std::size_t length = static_cast<std::size_t>(received);
        last = length;
        if (batch.Fits(length)) {
            batch.Add(datagram, length);
            handle.kept.reset();
        } else if (KelFaultText fault;
                   handle.kept == nullptr && !KelValidate_Batch(datagram, length, &fault)) {
            batch.Drop(length, fault.data()); // else its size would cost what waits behind it
        } else if (Keep(handle, datagram, length) == 0) {
            return batch.End(KELLIB_STATUS_TOO_SMALL);
        } else {
            batch.Drop(length, "no memory to keep it");
        }
    }
    return 0;
}

// Takes the next datagram away; its length, or negative with errno.
ssize_t Discard(int fd) { return recv(fd, nullptr, 0, MSG_TRUNC | MSG_DONTWAIT); }

bool PeerHasEnded(int fd)
{
    pollfd peer{.fd = fd, .events = POLLRDHUP, .revents = 0};
    return poll(&peer, 1, 0) > 0;
}

int ReadConnection(int fd, Batch &batch)
{
    while (batch.drops < kDropsPerReadMax || (batch.used == 0 && PeerHasEnded(fd))) {
        const ssize_t waiting = Look(fd);
        if (waiting < 0) return batch.End(errno);
        if (waiting == 0) {
            // The peer's end of stream, or an empty packet, which looks the same. A peer that has only
            // half closed would be reported readable for ever: shut down, poll tells of a hang-up.
            if (batch.used == 0) shutdown(fd, SHUT_RDWR);
            return 0;
        }
        const std::size_t length = static_cast<std::size_t>(waiting);
        if (length > KELLIB_BATCH_BYTES_MAX) {
            Discard(fd);
            batch.Drop(length, "larger than a batch may be");
            continue;
        }
        if (!batch.Fits(length)) return batch.End(KELLIB_STATUS_TOO_SMALL);
        if (recv(fd, arena, length, MSG_DONTWAIT) < 0) return batch.End(errno);
        batch.Add(arena, length);
    }
    return 0;
}

} // namespace

int KelLib_ReadFromFd(int fd, void *buffer, uint32_t size, uint32_t *byteCount)
{
    KelLibHandle *channel = KelChannel_Async(fd);
    Batch batch = {channel != nullptr ? channel->context : KELLIB_USER_CONTEXT, static_cast<char *>(buffer),
                   size};
    const int status = channel != nullptr ? ReadChannel(*channel, batch) : ReadConnection(fd, batch);
    *byteCount = static_cast<uint32_t>(batch.used);
    return status;
}

void KelLib_SetDropObserver(KelLibDropObserver observer) { dropObserver = observer; }

int KelLib_Reset(KelLibHandle *handle)
{
    if (handle == nullptr) return EINVAL;
    if (handle->context == KELLIB_USER_CONTEXT) return 0; // what waits there are producers, not records
    handle->kept.reset();
    for (int discarded = 0; discarded < kDropsPerReadMax; ++discarded) {
        const ssize_t length = Discard(handle->fd.Get());
        if (length < 0) return errno == EAGAIN ? 0 : errno;
        if (length == 0 && handle->bells > 0) --handle->bells;
    }
    return 0;
}
