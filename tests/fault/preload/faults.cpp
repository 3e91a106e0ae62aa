// Preloaded into the daemon: functions of libc that fail when the fault table says so.
//
// Agents are cancelled asynchronously inside poll: nothing here holds a lock, allocates, or has anything
// to clean up.
#include "../faultTable.h"

#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

FaultTable *table = nullptr; // null before the constructor, when nothing fails

__attribute__((constructor)) void MapTable()
{
    const char *path = std::getenv(kFaultTableVariable);
    if (path == nullptr) return;
    const auto file = static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, O_RDWR | O_CLOEXEC));
    void *mapped = mmap(nullptr, sizeof(FaultTable), PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
    syscall(SYS_close, file);
    if (mapped == MAP_FAILED) std::abort();
    table = static_cast<FaultTable *>(mapped);
}

bool IsThread(const char *name)
{
    char own[16] = {};
    prctl(PR_GET_NAME, own);
    return std::strncmp(own, name, std::strlen(name)) == 0;
}

// 0, or what errno is to be.
int Fault(Seam seam, const char *path = nullptr, std::size_t size = 0)
{
    if (table == nullptr) return 0;
    FaultSlot &slot = (*table)[static_cast<std::size_t>(seam)];
    const int error = slot.error.load(std::memory_order_acquire);
    if (error == 0) return 0;
    if (slot.path[0] != '\0' && (path == nullptr || std::strstr(path, slot.path.data()) == nullptr))
        return 0;
    if (slot.size != 0 && slot.size != size) return 0;
    if (slot.thread[0] != '\0' && !IsThread(slot.thread.data())) return 0;
    if (slot.passes.fetch_sub(1) > 0 || slot.failures.fetch_sub(1) <= 0) return 0;
    slot.failed.fetch_add(1);
    return error;
}

bool Fails(Seam seam, const char *path = nullptr, std::size_t size = 0)
{
    const int error = Fault(seam, path, size);
    if (error != 0) errno = error;
    return error != 0;
}

template <class Function> Function Next(std::atomic<Function> &found, const char *name)
{
    Function next = found.load(std::memory_order_relaxed);
    if (next != nullptr) return next;
    next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
    found.store(next, std::memory_order_relaxed);
    return next;
}

} // namespace

// One function: fails with -1, or is the one behind it.
#define SEAM(seam, result, name, parameters, arguments)                                                    \
    SEAM_AT(Fails(Seam::seam), -1, result, name, parameters, arguments)
// The same that tells of its failure in another way.
#define SEAM_AT(fails, failure, result, name, parameters, arguments)                                       \
    result name parameters                                                                                 \
    {                                                                                                      \
        static constinit std::atomic<result(*) parameters> found{nullptr};                                 \
        if (fails) return failure;                                                                         \
        return Next(found, #name) arguments;                                                               \
    }

extern "C" {

// clang-format off
SEAM(Accept, int, accept4, (int fd, sockaddr *address, socklen_t *length, int flags), (fd, address, length, flags))
SEAM(Bind, int, bind, (int fd, const sockaddr *address, socklen_t length) noexcept, (fd, address, length))
SEAM(Connect, int, connect, (int fd, const sockaddr *address, socklen_t length), (fd, address, length))
SEAM(GetTimeOfDay, int, gettimeofday, (timeval *now, void *zone) noexcept, (now, zone))
SEAM(Listen, int, listen, (int fd, int backlog) noexcept, (fd, backlog))
SEAM(Pipe, int, pipe, (int ends[2]) noexcept, (ends))
SEAM(Pipe2, int, pipe2, (int ends[2], int flags) noexcept, (ends, flags))
SEAM(Poll, int, poll, (pollfd *fds, nfds_t count, int timeout), (fds, count, timeout))
SEAM(Ppoll, int, ppoll, (pollfd *fds, nfds_t count, const timespec *timeout, const sigset_t *mask), (fds, count, timeout, mask))
SEAM(Read, ssize_t, read, (int fd, void *buffer, size_t size), (fd, buffer, size))
SEAM(Recv, ssize_t, recv, (int fd, void *buffer, size_t size, int flags), (fd, buffer, size, flags))
SEAM(Send, ssize_t, send, (int fd, const void *buffer, size_t size, int flags), (fd, buffer, size, flags))
SEAM(Sigaction, int, sigaction, (int signal, const struct sigaction *action, struct sigaction *before) noexcept, (signal, action, before))
SEAM(Socket, int, socket, (int domain, int type, int protocol) noexcept, (domain, type, protocol))
SEAM(Write, ssize_t, write, (int fd, const void *buffer, size_t size), (fd, buffer, size))
// Not of the log, which is a file here: a line goes there in two pieces.
SEAM_AT(count == 1 && Fails(Seam::Write), -1, ssize_t, writev, (int fd, const iovec *pieces, int count), (fd, pieces, count))
SEAM_AT(Fails(Seam::Unlink, path), -1, int, unlink, (const char *path) noexcept, (path))
SEAM_AT(const int error = Fault(Seam::Cancel), error, int, pthread_cancel, (pthread_t thread), (thread))
SEAM_AT(const int error = Fault(Seam::Join), error, int, pthread_join, (pthread_t thread, void **result), (thread, result))
SEAM_AT(const int error = Fault(Seam::Thread), error, int, pthread_create, (pthread_t *thread, const pthread_attr_t *attributes, void *(*main)(void *), void *argument) noexcept, (thread, attributes, main, argument))
// clang-format on

int open(const char *path, int flags, ...)
{
    static constinit std::atomic<int (*)(const char *, int, ...)> found{nullptr};
    va_list more;
    va_start(more, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : 0;
    va_end(more);
    return Fails(Seam::Open, path) ? -1 : Next(found, "open")(path, flags, mode);
}

// A sanitizer has an allocator of its own, which is left alone.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
void *__libc_malloc(size_t size) noexcept;
void *__libc_calloc(size_t count, size_t size) noexcept;
void *__libc_realloc(void *memory, size_t size) noexcept;

void *malloc(size_t size) noexcept
{
    return Fails(Seam::Memory, nullptr, size) ? nullptr : __libc_malloc(size);
}

void *calloc(size_t count, size_t size) noexcept
{
    return Fails(Seam::Memory, nullptr, count * size) ? nullptr : __libc_calloc(count, size);
}

void *realloc(void *memory, size_t size) noexcept
{
    return Fails(Seam::Memory, nullptr, size) ? nullptr : __libc_realloc(memory, size);
}
#endif

} // extern "C"
