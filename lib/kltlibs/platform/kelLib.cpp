// Channels: the sockets of the run directory, and whole, valid records out of them.
//
// An asynchronous context is a datagram socket, the user-level context a listening sequenced-packet
// socket whose connections the caller keeps. Nothing is remembered about a connection; what is
// remembered about a channel lies in its handle and in Host.
//
// A datagram that does not fit the caller's buffer has to wait, but once received it cannot be put
// back, and to look at it before costs as much again. So asynchronous contexts, which carry nearly
// everything, are received into memory of the library's own, and looked at before only where one like
// the last would not fit. What does not fit all the same is kept, and an empty datagram from the channel
// to itself, its bell, goes on telling poll that something waits. A connection cannot send to itself:
// there the library always looks first.
#include "kltlibs/kel.h"

#include "diagnostic.h"
#include "files.h"
#include "kelValidate.h"
#include "kltlibs/ktime.h"
#include "kltlibs/rundir.h"
#include "kltlibs/str.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

struct KelLibHandle {
    int context;
    UniqueFd fd;
    std::string path;
    dev_t device = 0; // with inode: which file at path is this one's own
    ino_t inode = 0;
    std::unique_ptr<char[]> kept; // a datagram received but not yet handed out
    std::size_t keptBytes = 0;
    unsigned bells = 0; // bells on their way through the queue
};

namespace {

constexpr int kContexts = KELLIB_ASYNC_CONTEXTS + 1;
static_assert(KELLIB_USER_CONTEXT == kContexts - 1, "the user-level context follows the asynchronous ones");

constexpr int kBacklog = 128;
constexpr int kAcceptPauseMilliseconds = 10;

// A producer that sends nothing but rubbish must not keep the caller from its other channels. What one has
// left behind that has ended is finite, and is read to its end: a caller closes what gave nothing and has
// hung up.
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

// What this process has of the run directory; main thread only.
struct Host {
    Host() { asyncFds.fill(-1); }

    std::string directory; // of the lock, which lasts while a channel is open
    UniqueFd lock;
    UniqueFd spare; // given up for a moment when there is no descriptor left to accept with
    std::array<std::unique_ptr<KelLibHandle>, kContexts> handles;
    std::array<int, KELLIB_ASYNC_CONTEXTS> asyncFds; // of handles, for the look-up at every read
    std::array<DropLog, kContexts> dropLogs;
    KelLibDropObserver dropObserver = nullptr;
};

Host &TheHost()
{
    static Host &host = *new Host;
    return host;
}

void NameOf(int context, char name[KELLIB_NAME_BYTES_MAX])
{
    if (context == KELLIB_USER_CONTEXT)
        Str_Strcpy(name, "user", KELLIB_NAME_BYTES_MAX);
    else
        Str_Sprintf(name, KELLIB_NAME_BYTES_MAX, "async-%d", context);
}

// ---- Reading --------------------------------------------------------------------------------------

// Where datagrams are received. The kernel makes none of more than 4 MiB and a few pages; only what is
// used becomes resident.
constexpr std::size_t kArenaBytes = 8 << 20;
char arena[kArenaBytes];

// The asynchronous context of a descriptor; null for any other, which can only be a connection.
KelLibHandle *AsyncHandleOf(int fd)
{
    const Host &host = TheHost();
    const auto found = std::find(host.asyncFds.begin(), host.asyncFds.end(), fd);
    if (found == host.asyncFds.end()) return nullptr;
    return host.handles[static_cast<std::size_t>(found - host.asyncFds.begin())].get();
}

void LogDrop(int context, std::size_t bytes, const char *reason)
{
    char name[KELLIB_NAME_BYTES_MAX];
    NameOf(context, name);
    Host &host = TheHost();
    host.dropLogs[static_cast<std::size_t>(context)].Write(name, bytes, reason);
    if (host.dropObserver != nullptr) host.dropObserver(context, bytes, reason);
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

sockaddr_un AddressOf(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Str_Strcpy(address.sun_path, path.c_str(),
               sizeof address.sun_path); // shorter by the run directory's limit
    return address;
}

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
    const sockaddr_un address = AddressOf(handle.path);
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

// ---- Opening --------------------------------------------------------------------------------------

int Complain(const std::string &path, const char *step, int error)
{
    KltDiagnose("%s: %s: %s", path.c_str(), step, strerrordesc_np(error));
    return error;
}

// Takes the lock of the run directory, unless this process has it.
int LockRunDirectory(Host &host, const std::string &directory)
{
    if (host.lock) return host.directory == directory ? 0 : EBUSY;
    const std::string kel = directory + "/kel";
    if (const int error = KltMakeDirectory(kel); error != 0) return Complain(kel, "mkdir", error);
    const std::string path = kel + "/lock";
    UniqueFd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) return Complain(path, "open", errno);
    if (flock(lock.Get(), LOCK_EX | LOCK_NB) != 0)
        return Complain(path, "flock", errno == EWOULDBLOCK ? EBUSY : errno);
    host.lock = std::move(lock);
    host.directory = directory;
    return 0;
}

void UnlockWhenUnused(Host &host)
{
    const bool used =
        std::any_of(host.handles.begin(), host.handles.end(), [](auto &h) { return h != nullptr; });
    if (!used) host.lock.Reset();
}

struct SocketKind {
    int type;
    mode_t mode;
};

SocketKind KindOf(int context)
{
    if (context == KELLIB_USER_CONTEXT) return {SOCK_SEQPACKET, 0660};
    return {SOCK_DGRAM, 0600};
}

// Makes a handle's socket anew. From its first moment on nobody has more rights to it than its mode.
int BindSocket(KelLibHandle &handle)
{
    const SocketKind kind = KindOf(handle.context);
    const sockaddr_un address = AddressOf(handle.path);
    if (unlink(handle.path.c_str()) != 0 && errno != ENOENT) return Complain(handle.path, "unlink", errno);
    UniqueFd fd(socket(AF_UNIX, kind.type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd) return Complain(handle.path, "socket", errno);
    if (fchmod(fd.Get(), kind.mode) != 0) return Complain(handle.path, "fchmod", errno);
    if (bind(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return Complain(handle.path, "bind", errno);
    int error = 0;
    if (chmod(handle.path.c_str(), kind.mode) != 0)
        error = Complain(handle.path, "chmod", errno);
    else if (kind.type == SOCK_SEQPACKET && listen(fd.Get(), kBacklog) != 0)
        error = Complain(handle.path, "listen", errno);
    if (error != 0) {
        unlink(handle.path.c_str());
        return error;
    }
    struct stat own;
    if (lstat(handle.path.c_str(), &own) == 0) {
        handle.device = own.st_dev;
        handle.inode = own.st_ino;
    }
    handle.fd = std::move(fd);
    return 0;
}

// 0 or an errno value. What somebody else has put in the place of the socket is not ours to remove.
int RemoveSocket(const KelLibHandle &handle)
{
    struct stat there;
    if (lstat(handle.path.c_str(), &there) != 0) return errno == ENOENT ? 0 : errno;
    if (there.st_dev != handle.device || there.st_ino != handle.inode) return 0;
    return unlink(handle.path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
}

int OpenContext(int context, KelLibHandle **handle)
{
    *handle = nullptr;
    char directory[KLT_RUN_PATH_BYTES];
    if (KltRunDir_Path("", directory, sizeof directory) != 0) {
        KltDiagnose("KALTOR_RUN_DIR must be an absolute path of at most %d bytes", KLT_RUN_DIR_BYTES_MAX);
        return EINVAL;
    }
    Host &host = TheHost();
    auto &slot = host.handles[static_cast<std::size_t>(context)];
    if (slot != nullptr) return EBUSY;
    if (const int error = LockRunDirectory(host, directory); error != 0) return error;

    char name[KELLIB_NAME_BYTES_MAX];
    NameOf(context, name);
    auto opened = std::make_unique<KelLibHandle>();
    opened->context = context;
    opened->path = host.directory + "/kel/" + name + ".sock";
    if (const int error = BindSocket(*opened); error != 0) {
        UnlockWhenUnused(host);
        return error;
    }
    if (context == KELLIB_USER_CONTEXT)
        host.spare.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    else
        host.asyncFds[static_cast<std::size_t>(context)] = opened->fd.Get();
    slot = std::move(opened);
    *handle = slot.get();
    return 0;
}

// A connection that cannot be accepted would be reported by poll at once and for ever: the spare
// descriptor lets it in and out again, so that its producer learns of it; failing that, a pause.
void TurnAway(Host &host, int listening)
{
    host.spare.Reset();
    if (!UniqueFd(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC)))
        poll(nullptr, 0, kAcceptPauseMilliseconds);
    host.spare.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
}

int SocketOption(int fd, int option)
{
    int value = -1;
    socklen_t length = sizeof value;
    return getsockopt(fd, SOL_SOCKET, option, &value, &length) == 0 ? value : -1;
}

} // namespace

int KelLib_ReadFromFd(int fd, void *buffer, uint32_t size, uint32_t *byteCount)
{
    KelLibHandle *channel = AsyncHandleOf(fd);
    Batch batch = {channel != nullptr ? channel->context : KELLIB_USER_CONTEXT, static_cast<char *>(buffer),
                   size};
    const int status = channel != nullptr ? ReadChannel(*channel, batch) : ReadConnection(fd, batch);
    *byteCount = static_cast<uint32_t>(batch.used);
    return status;
}

void KelLib_SetDropObserver(KelLibDropObserver observer) { TheHost().dropObserver = observer; }

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

int KelLib_AsyncContextOpen(int32_t context, KelLibHandle **handle)
{
    *handle = nullptr;
    return context >= 0 && context < KELLIB_ASYNC_CONTEXTS ? OpenContext(context, handle) : EINVAL;
}

int KelLib_UserContextOpen(int32_t context, KelLibHandle **handle)
{
    *handle = nullptr;
    return context == KELLIB_USER_CONTEXT ? OpenContext(context, handle) : EINVAL;
}

int KelLib_HandleToFd(const KelLibHandle *handle, int *fd)
{
    *fd = handle != nullptr ? handle->fd.Get() : -1;
    return handle != nullptr ? 0 : EINVAL;
}

int KelLib_HandleToName(const KelLibHandle *handle, char name[KELLIB_NAME_BYTES_MAX])
{
    name[0] = '\0';
    if (handle == nullptr) return EINVAL;
    NameOf(handle->context, name);
    return 0;
}

int KelLib_UserContextNewCnx(KelLibHandle *handle, int *fd)
{
    *fd = -1;
    if (handle == nullptr || handle->context != KELLIB_USER_CONTEXT) return EINVAL;
    *fd = accept4(handle->fd.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (*fd >= 0) return 0;
    const int error = errno;
    if (error != EAGAIN && error != ECONNABORTED) TurnAway(TheHost(), handle->fd.Get());
    return error;
}

int KelLib_UserContextCloseCnx(int fd)
{
    const bool connection = SocketOption(fd, SO_DOMAIN) == AF_UNIX &&
                            SocketOption(fd, SO_TYPE) == SOCK_SEQPACKET &&
                            SocketOption(fd, SO_ACCEPTCONN) == 0;
    return connection ? close(fd) : -1;
}

int KelLib_Close(KelLibHandle *handle)
{
    if (handle == nullptr) return EINVAL;
    Host &host = TheHost();
    const std::size_t index = static_cast<std::size_t>(handle->context);
    int error = RemoveSocket(*handle);
    if (close(handle->fd.Release()) != 0 && error == 0) error = errno;
    if (handle->context == KELLIB_USER_CONTEXT)
        host.spare.Reset();
    else
        host.asyncFds[index] = -1;
    host.handles[index].reset();
    UnlockWhenUnused(host);
    return error;
}
