// Agents.
//
// Started by the main thread, which waits until all have registered, and cancelled by it at the exit.
// A handler always runs to its end: cancellation is open only around the poll in which an agent waits.
// An agent that ends by itself leaves the dispatcher first, without ever blocking it.

#include "keldAgent.h"

#include "keldDispatch.h"
#include "keldLog.h"
#include "keldMutex.h"
#include "keldSignal.h"
#include "keldStatus.h"

#include <kltlibs/kthread.h>

#include <array>
#include <cerrno>
#include <condition_variable>
#include <cstring>
#include <cxxabi.h>
#include <exception>
#include <new>
#include <pthread.h>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

// A cancellation has no exception object: the reference that catches it is null, which a sanitizer would
// report.
#define KELD_CATCHES_CANCELLATION __attribute__((noinline, no_sanitize("null")))

namespace {

void *AgentTrampoline(void *argument);
void RunEntry(KeldAgentEntry entry);
void ReportArrival();
void ForgetCancelledFrames();
unsigned CutTo32Bits(KeldAgentEntry entry);
int CancellablePoll(pollfd *fds, nfds_t count);

// Main thread only.
std::array<pthread_t, kKeldAgentsMax> gThreads;
unsigned gThreadCount = 0;

// How many agents have registered or ended, each counted once.
struct Arrivals {
    KeldMutex mutex;
    std::condition_variable changed;
    unsigned count GUARDED_BY(mutex) = 0;
};
Arrivals &arrivals = *new Arrivals;
thread_local bool tArrived = false;

} // namespace

void KeldAgentStart(KeldAgentEntry entry)
{
    KeldStatusAgentStarts();
    if (gThreadCount == kKeldAgentsMax) {
        KeldLog("Failed to start agent. Already reached max limit of %u agents.\n", kKeldAgentsMax);
        return;
    }
    const int error =
        pthread_create(&gThreads[gThreadCount], nullptr, AgentTrampoline, reinterpret_cast<void *>(entry));
    if (error != 0) {
        KeldLog("Failed to create thread %p (id:%u err:%d %s)\n", reinterpret_cast<void *>(entry),
                gThreadCount, error, std::strerror(error));
        return;
    }
    ++gThreadCount;
}

void KeldAgentAwaitAll()
{
    KeldLock lock(arrivals.mutex);
    while (arrivals.count < gThreadCount)
        arrivals.changed.wait(lock.Waitable());
}

void KeldAgentStopAll()
{
    KeldSetStopping();
    KeldStatusStands(KeldStanding::Stops);
    while (gThreadCount > 0) {
        const unsigned slot = --gThreadCount;
        int error = pthread_cancel(gThreads[slot]);
        if (error != 0) {
            KeldLog("Failed to cancel thread id:%u, err:%d %s\n", slot, error, std::strerror(error));
            continue;
        }
        error = pthread_join(gThreads[slot], nullptr);
        if (error != 0)
            KeldLog("Failed to join thread id:%u, err:%d %s\n", slot, error, std::strerror(error));
    }
}

int KeldAgentInit(const std::string &name, const std::vector<std::string> &domains,
                  const std::vector<std::string> &exactIds, KeldAgent **agent)
{
    int code = 1;
    KThreadBase_SetName(name.c_str());
    try {
        auto made = std::make_unique<KeldAgent>();
        made->name = std::make_shared<const std::string>(name);
        code = 0;
        for (const std::string &domain : domains)
            if (code == 0) code = KeldSubscriptionAddDomain(&made->subscription, domain);
        for (const std::string &id : exactIds)
            if (code == 0) code = KeldSubscriptionAddExactId(&made->subscription, id);
        if (code == 0) code = KeldStreamRegister(made->name, made->subscription, &made->stream);
        if (code == 0) {
            KeldStatusAgentBegins(made->stream->number, name.c_str());
            made->fd = made->stream->readFd.Get();
            *agent = made.release();
            ReportArrival();
            return 0;
        }
    } catch (const std::bad_alloc &) {
        code = 1;
    }
    KeldLog("Failed to initialize agent %s (error code: %d) \n", name.c_str(), code);
    return code;
}

KELD_CATCHES_CANCELLATION
void KeldAgentRun(const std::string &name, const std::vector<std::string> &domains,
                  const std::vector<std::string> &exactIds, const std::function<void(KeldAgent *)> &loop)
{
    struct Cleanup {
        void operator()(KeldAgent *agent) const { KeldAgentCleanup(&agent); }
    };
    KeldAgent *agent = nullptr;
    if (KeldAgentInit(name, domains, exactIds, &agent) != 0) return;
    std::unique_ptr<KeldAgent, Cleanup> owner(agent);
    try {
        loop(agent);
    } catch (abi::__forced_unwind &) {
        ForgetCancelledFrames();
        delete owner.release();
        throw;
    }
}

void KeldAgentCleanup(KeldAgent **agent)
{
    if (*agent == nullptr) return;
    KeldStatusStands(KeldStanding::Leaves);
    (void)KeldStreamUnregister((*agent)->stream);
    delete *agent;
    *agent = nullptr;
    KeldLog("Done cleaning up agent.\n");
}

int KeldAgentWaitForKel(KeldAgent *agent, Kel **kel)
{
    for (;;) {
        if (!KeldAgentGoesOn(agent)) {
            pollfd waiting{.fd = agent->fd, .events = POLLIN, .revents = 0};
            if (KeldAgentPoll(&waiting, 1) < 0) {
                if (errno == EINTR) continue;
                KeldLog("Failed to poll - %s\n", std::strerror(errno));
                return 2;
            }
            if ((waiting.revents & POLLIN) == 0) {
                KeldLog("Failed to poll, invalid revents - %hd\n", waiting.revents);
                return 2;
            }
        }
        bool complete = false;
        const int code = KeldStreamReadKel(agent->stream, kel, &complete);
        if (code != 0) {
            KeldLog("Failed to get Kel\n");
            return code;
        }
        if (complete) return 0;
    }
}

bool KeldAgentGoesOn(const KeldAgent *agent)
{
    return KeldStreamHoldsKel(agent->stream) && !KeldStopping();
}

int KeldAgentPoll(pollfd *fds, nfds_t count)
{
    KeldLookOut *lookOut = KeldGetLookOut();
    if (lookOut != nullptr) lookOut->Waits(fds, count);
    KeldStatusStands(KeldStanding::Idle);
    const int ready = CancellablePoll(fds, count);
    const int error = errno;
    KeldStatusStands(KeldStanding::Works);
    if (lookOut != nullptr) lookOut->Left();
    errno = error;
    return ready;
}

namespace {

// A frame of its own with nothing to clean up: an asynchronous cancellation can strike at any
// instruction here, and only a frame without handlers lets it pass wherever it strikes.
__attribute__((noinline)) int CancellablePoll(pollfd *fds, nfds_t count)
{
    int type = 0;
    int state = 0;
    pthread_setcanceltype(PTHREAD_CANCEL_ASYNCHRONOUS, &type);
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, &state);
    const int ready = poll(fds, count, -1);
    const int error = errno;
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    pthread_setcanceltype(type, nullptr);
    errno = error;
    return ready;
}

void *AgentTrampoline(void *argument)
{
    const auto entry = reinterpret_cast<KeldAgentEntry>(argument);
    if (pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr) != 0)
        KeldLog("Failed to set thread cancel type for agent function(%#x).\n", CutTo32Bits(entry));
    KeldLookOut *lookOut = KeldGetLookOut();
    if (lookOut != nullptr) lookOut->AgentBegins();
    RunEntry(entry);
    KeldStatusStands(KeldStanding::Ended);
    if (lookOut != nullptr) lookOut->AgentEnds();
    ReportArrival();
    return nullptr;
}

KELD_CATCHES_CANCELLATION
void RunEntry(KeldAgentEntry entry)
try {
    entry();
} catch (const std::exception &exception) {
    KeldLog("Exception (%s) in agent function(%#x).\n", exception.what(), CutTo32Bits(entry));
} catch (abi::__forced_unwind &) {
    throw; // cancelled, not failed
} catch (...) {
    KeldLog("Unknown exception in agent function(%#x).\n", CutTo32Bits(entry));
}

void ReportArrival()
{
    if (std::exchange(tArrived, true)) return;
    KeldLock lock(arrivals.mutex);
    ++arrivals.count;
    arrivals.changed.notify_all();
}

// A cancelled frame does not tell the address sanitizer that its variables are gone. They lie below the
// caller's, and nothing else does.
void ForgetCancelledFrames()
{
#ifdef __SANITIZE_ADDRESS__
    constexpr std::size_t kBytes = 64 << 10;
    __asan_unpoison_memory_region(static_cast<char *>(__builtin_frame_address(0)) - kBytes, kBytes);
#endif
}

unsigned CutTo32Bits(KeldAgentEntry entry)
{
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(entry));
}

} // namespace
