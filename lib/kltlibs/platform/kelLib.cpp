// Channels: the sockets of the run directory. What waits in them is read in kelLibRead.cpp.
//
// An asynchronous context is a datagram socket, the user-level context a listening sequenced-packet
// socket whose connections the caller keeps. Nothing is remembered about a connection; what is
// remembered about a channel lies in its handle and in Host.
#include "kltlibs/kel.h"

#include "diagnostic.h"
#include "files.h"
#include "kelChannel.h"
#include "kltlibs/rundir.h"
#include "kltlibs/str.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <fcntl.h>
#include <memory>
#include <poll.h>
#include <string>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace {

constexpr int kContexts = KELLIB_ASYNC_CONTEXTS + 1;
static_assert(KELLIB_USER_CONTEXT == kContexts - 1, "the user-level context follows the asynchronous ones");

constexpr int kBacklog = 128;
constexpr int kAcceptPauseMilliseconds = 10;

// What this process has of the run directory; main thread only.
struct Host {
    Host() { asyncFds.fill(-1); }

    std::string directory; // of the lock, which lasts while a channel is open
    UniqueFd lock;
    UniqueFd spare; // given up for a moment when there is no descriptor left to accept with
    std::array<std::unique_ptr<KelLibHandle>, kContexts> handles;
    std::array<int, KELLIB_ASYNC_CONTEXTS> asyncFds; // of handles, for the look-up at every read
};

Host &TheHost()
{
    static Host &host = *new Host;
    return host;
}

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
    const sockaddr_un address = KelChannel_Address(handle);
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
    KelChannel_Name(context, name);
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
    KelChannel_Name(handle->context, name);
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

KelLibHandle *KelChannel_Async(int fd)
{
    const Host &host = TheHost();
    const auto found = std::find(host.asyncFds.begin(), host.asyncFds.end(), fd);
    if (found == host.asyncFds.end()) return nullptr;
    return host.handles[static_cast<std::size_t>(found - host.asyncFds.begin())].get();
}

void KelChannel_Name(int context, char name[KELLIB_NAME_BYTES_MAX])
{
    if (context == KELLIB_USER_CONTEXT)
        Str_Strcpy(name, "user", KELLIB_NAME_BYTES_MAX);
    else
        Str_Sprintf(name, KELLIB_NAME_BYTES_MAX, "async-%d", context);
}

sockaddr_un KelChannel_Address(const KelLibHandle &handle)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    Str_Strcpy(address.sun_path, handle.path.c_str(),
               sizeof address.sun_path); // shorter by the run directory's limit
    return address;
}
