#include "keldSignal.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <pthread.h>

namespace {

constexpr int kSignals[] = {SIGTERM, SIGINT, SIGPIPE};

std::atomic<bool> gExitRequested{false};
std::atomic<bool> gStopping{false};
static_assert(std::atomic<bool>::is_always_lock_free, "the handler may touch it");

std::atomic<KeldLookOut *> gLookOut{nullptr};

sigset_t gWhileWaiting; // fixed after start: the mask the process was started with, our signals open

void HandleSignal(int signal)
{
    if (signal != SIGPIPE) gExitRequested.store(true, std::memory_order_relaxed);
}

// A ready descriptor ends ppoll before a pending signal is looked at: under steady load it would wait
// for ever. Opening the mask once without descriptors lets its handler run.
bool TakePendingSignal()
{
    sigset_t pending;
    if (sigpending(&pending) != 0) return false;
    for (const int signal : kSignals) {
        if (sigismember(&pending, signal) != 1) continue;
        const timespec none{};
        (void)ppoll(nullptr, 0, &none, &gWhileWaiting);
        return true;
    }
    return false;
}

} // namespace

int KeldSignalInit()
{
    struct sigaction action {};
    action.sa_handler = HandleSignal;
    sigemptyset(&action.sa_mask);
    sigset_t ours;
    sigemptyset(&ours);
    for (const int signal : kSignals) {
        if (sigaction(signal, &action, nullptr) != 0 && errno != 0) return errno;
        sigaddset(&ours, signal);
    }
    const int error = pthread_sigmask(SIG_BLOCK, &ours, &gWhileWaiting);
    for (const int signal : kSignals)
        sigdelset(&gWhileWaiting, signal);
    return error;
}

bool KeldExitRequested() { return gExitRequested.load(std::memory_order_relaxed); }

int KeldPoll(pollfd *fds, nfds_t count)
{
    KeldLookOut *lookOut = KeldGetLookOut();
    if (lookOut != nullptr) lookOut->Waits(fds, count);
    const int ready = ppoll(fds, count, nullptr, &gWhileWaiting);
    const int error = errno;
    if (lookOut != nullptr) lookOut->Left();
    errno = error;
    if (ready > 0 && TakePendingSignal()) {
        errno = EINTR;
        return -1;
    }
    return ready;
}

void KeldSetStopping() { gStopping.store(true, std::memory_order_relaxed); }
bool KeldStopping() { return gStopping.load(std::memory_order_relaxed); }

void KeldSetLookOut(KeldLookOut *lookOut) { gLookOut.store(lookOut, std::memory_order_relaxed); }
KeldLookOut *KeldGetLookOut() { return gLookOut.load(std::memory_order_relaxed); }
