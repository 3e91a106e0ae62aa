// Channels: the sockets of the run directory, and whole, valid records out of them.
//
// An asynchronous context is a datagram socket, the user-level context a listening sequenced-packet
// socket whose connections the caller keeps. Nothing is remembered about a connection; what is
// remembered about a channel lies in Host.
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
#include <optional>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

struct KelLibHandle {
    int context;
    UniqueFd fd;
    std::string path;
};

namespace {

constexpr int kContexts = KELLIB_ASYNC_CONTEXTS + 1;
static_assert(KELLIB_USER_CONTEXT == kContexts - 1, "the user-level context follows the asynchronous ones");

constexpr int kBacklog = 128;

// A producer that sends nothing but rubbish must not keep the caller from its other channels.
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
    Host() { fds.fill(-1); }

    std::string directory; // of the lock, which lasts while a channel is open
    UniqueFd lock;
    UniqueFd spare; // given up for a moment when there is no descriptor left to accept with
    std::array<std::unique_ptr<KelLibHandle>, kContexts> handles;
    std::array<int, kContexts> fds; // of handles, for the look-up at every read
    std::array<DropLog, kContexts> dropLogs;
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

// The context whose records come from a descriptor: a descriptor of no asynchronous context is a
// producer's connection.
int ContextOf(int fd)
{
    const auto &fds = TheHost().fds;
    const auto found = std::find(fds.begin(), fds.end(), fd);
    return found != fds.end() ? static_cast<int>(found - fds.begin()) : KELLIB_USER_CONTEXT;
}

void LogDrop(int context, std::size_t bytes, const char *reason)
{
    char name[KELLIB_NAME_BYTES_MAX];
    NameOf(context, name);
    TheHost().dropLogs[static_cast<std::size_t>(context)].Write(name, bytes, reason);
}

// The length of the next datagram, which stays where it is; negative with errno.
ssize_t PeekLength(int fd) { return recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT); }

// Takes the next datagram away; its length, or negative with errno.
ssize_t Discard(int fd) { return recv(fd, nullptr, 0, MSG_TRUNC | MSG_DONTWAIT); }

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
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (Str_Strcpy(address.sun_path, handle.path.c_str(), sizeof address.sun_path) != 0)
        return Complain(handle.path, "bind", ENAMETOOLONG);
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
    handle.fd = std::move(fd);
    return 0;
}

int OpenContext(int context, KelLibHandle **handle)
{
    *handle = nullptr;
    char directory[KLT_RUN_PATH_BYTES];
    if (KltRunDir_Path("", directory, sizeof directory) != 0) return EINVAL;
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
    if (context == KELLIB_USER_CONTEXT) host.spare.Reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    host.fds[static_cast<std::size_t>(context)] = opened->fd.Get();
    slot = std::move(opened);
    *handle = slot.get();
    return 0;
}

// A connection that cannot be accepted for want of a descriptor would be reported by poll for ever:
// the spare descriptor lets it in and out again, so that its producer learns of it.
void TurnAway(Host &host, int listening)
{
    host.spare.Reset();
    UniqueFd(accept4(listening, nullptr, nullptr, SOCK_CLOEXEC)).Reset();
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
    *byteCount = 0;
    const int context = ContextOf(fd);
    const bool connection = context == KELLIB_USER_CONTEXT;
    std::size_t used = 0;
    for (int drops = 0; drops < kDropsPerReadMax;) {
        // A look first, for a datagram once received cannot be put back.
        const ssize_t waiting = PeekLength(fd);
        if (waiting < 0) {
            if (errno != EAGAIN && used == 0) return errno;
            break;
        }
        if (waiting == 0 && connection) {
            // The peer's end of stream, or an empty packet, which looks the same. A peer that has only
            // half closed would be reported readable for ever: shut down, poll tells of a hang-up.
            if (used == 0) shutdown(fd, SHUT_RDWR);
            break;
        }
        const std::size_t length = static_cast<std::size_t>(waiting);
        if (connection && length > KELLIB_BATCH_BYTES_MAX) {
            Discard(fd);
            LogDrop(context, length, "larger than a batch may be");
            ++drops;
            continue;
        }
        const std::size_t limit = used == 0 ? size : std::min<std::size_t>(size, KELLIB_BATCH_BYTES_MAX);
        if (used > limit || length > limit - used) {
            if (used == 0) return KELLIB_STATUS_TOO_SMALL;
            break;
        }
        char *to = static_cast<char *>(buffer) + used;
        if (recv(fd, to, length, MSG_DONTWAIT) < 0) {
            if (errno != EAGAIN && used == 0) return errno;
            break;
        }
        KelFaultText fault;
        if (KelValidate_Batch(to, length, &fault)) {
            used += length;
        } else {
            LogDrop(context, length, fault.data());
            ++drops;
        }
    }
    *byteCount = static_cast<uint32_t>(used);
    return 0;
}

int KelLib_Reset(KelLibHandle *handle)
{
    if (handle == nullptr) return EINVAL;
    if (handle->context == KELLIB_USER_CONTEXT) return 0; // what waits there are producers, not records
    for (int discarded = 0; discarded < kDropsPerReadMax; ++discarded)
        if (Discard(handle->fd.Get()) < 0) return errno == EAGAIN ? 0 : errno;
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
    if (error == EMFILE || error == ENFILE) TurnAway(TheHost(), handle->fd.Get());
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
    int error = unlink(handle->path.c_str()) == 0 || errno == ENOENT ? 0 : errno;
    if (close(handle->fd.Release()) != 0 && error == 0) error = errno;
    if (handle->context == KELLIB_USER_CONTEXT) host.spare.Reset();
    host.fds[index] = -1;
    host.handles[index].reset();
    UnlockWhenUnused(host);
    return error;
}
