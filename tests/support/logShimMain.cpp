// What is preloaded into the daemon as it is shipped: a system log that is a file, and gates for its
// threads.
//
// What the daemon sends to /dev/log goes to the descriptor named in KELD_LOG_FD, as it stands, unless
// KELD_LOG_SOCKET names a socket that takes the place of /dev/log.
//
// KELD_THREAD_GATES names a directory. A thread that gives itself a name, as agents do first of all, waits
// where a FIFO of that name (cut to 15 characters) lies there, until somebody has it open for writing.
#include "logFile.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::atomic<int> logSocket{-1};

template <class Function> Function Next(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

extern "C" {

int connect(int fd, const sockaddr *address, socklen_t length)
{
    const char *file = std::getenv("KELD_LOG_FD");
    if (address->sa_family != AF_UNIX || file == nullptr ||
        std::strcmp(reinterpret_cast<const sockaddr_un *>(address)->sun_path, "/dev/log") != 0)
        return Next<decltype(&connect)>("connect")(fd, address, length);
    if (const char *path = std::getenv("KELD_LOG_SOCKET")) {
        sockaddr_un instead{.sun_family = AF_UNIX, .sun_path = {}};
        std::strncpy(instead.sun_path, path, sizeof instead.sun_path - 1);
        return Next<decltype(&connect)>("connect")(fd, reinterpret_cast<sockaddr *>(&instead),
                                                   sizeof instead);
    }
    LogFile::descriptor = std::atoi(file);
    logSocket = fd;
    return 0;
}

ssize_t send(int fd, const void *bytes, size_t length, int flags)
{
    if (fd != logSocket) return Next<decltype(&send)>("send")(fd, bytes, length, flags);
    LogFile::Write(static_cast<const char *>(bytes), length);
    return static_cast<ssize_t>(length);
}

int pthread_setname_np(pthread_t, const char *name)
{
    char gate[256];
    const char *directory = std::getenv("KELD_THREAD_GATES");
    if (directory != nullptr && std::snprintf(gate, sizeof gate, "%s/%s", directory, name) > 0)
        if (const int fd = open(gate, O_RDONLY | O_CLOEXEC); fd >= 0) close(fd);
    return prctl(PR_SET_NAME, name); // here, no thread names another
}

} // extern "C"
