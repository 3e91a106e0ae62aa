#include "keldStatus.h"

#include "keldProcess.h"

#include <kltlibs/ksyslog.h>
#include <kltlibs/rundir.h>
#include <kltlibs/uniquefd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr std::size_t kPageBytes = 4096;
static_assert(sizeof(KeldStatusFile) % kPageBytes == 0, "a file takes the place of whole pages");

// The file is mapped over this very memory, so that counting needs to know nothing of it.
alignas(kPageBytes) KeldStatusFile status{};
KeldStatusThread nobody{}; // where threads without a place count

thread_local KeldStatusThread *own = &nobody;
thread_local std::uint64_t beforeLog = 0; // what the thread stood in when it began to wait for the log

std::uint64_t Get(std::uint64_t &word) { return std::atomic_ref(word).load(std::memory_order_relaxed); }
void Put(std::uint64_t &word, std::uint64_t value)
{
    std::atomic_ref(word).store(value, std::memory_order_relaxed);
}
void Add(std::uint64_t &word, std::uint64_t count = 1) { Put(word, Get(word) + count); } // its one writer

void PutText(char *text, std::size_t size, std::string_view value)
{
    value = value.substr(0, size - 1);
    std::memcpy(text, value.data(), value.size());
    text[value.size()] = '\0';
}

// How long a thread stands still does not depend on what time a simulation says it is. The coarse clock is
// a few milliseconds late at most, and costs next to nothing.
std::uint64_t Microseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

std::uint64_t StateWord(unsigned standing)
{
    return Microseconds(CLOCK_MONOTONIC_COARSE) << kKeldStandingBits | standing;
}

void Take(std::size_t place, const char *name)
{
    own = &status.threads[place];
    PutText(own->name, sizeof own->name, name);
    KeldStatusStands(KeldStanding::Begins);
}

// ---- The file ---------------------------------------------------------------------------------------

// A new file, as large as it will ever be, with what was counted so far; none when it cannot be made.
UniqueFd MakeFile(const char *path)
{
    (void)unlink(path); // of a daemon that was killed just then
    UniqueFd fd(open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644));
    if (fd && fchmod(fd.Get(), 0644) == 0 && posix_fallocate(fd.Get(), 0, sizeof status) == 0 &&
        pwrite(fd.Get(), &status, sizeof status, 0) == static_cast<ssize_t>(sizeof status))
        return fd;
    return UniqueFd();
}

// Maps the file over the memory. A write to a mapped page cannot fail for want of disk space: all of the
// file's space was allocated before.
void LayFileUnder()
{
    char path[KLT_RUN_PATH_BYTES];
    char fresh[KLT_RUN_PATH_BYTES];
    if (KltRunDir_Path(kKeldStatusName, path, sizeof path) != 0) return;
    if (KltRunDir_Path("keld-status.new", fresh, sizeof fresh) != 0) return;
    if (kPageBytes % static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) != 0) return;
    const UniqueFd fd = MakeFile(fresh);
    if (!fd ||
        mmap(&status, sizeof status, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_FIXED | MAP_POPULATE,
             fd.Get(), 0) == MAP_FAILED ||
        rename(fresh, path) != 0)
        (void)unlink(fresh);
}

void ObserveLog(KSyslogMoment moment)
{
    switch (moment) {
    case KSyslogMoment::Waits:
        beforeLog = Get(own->state);
        return KeldStatusStands(KeldStanding::Log);
    case KSyslogMoment::GoesOn:
        return Put(own->state, beforeLog);
    case KSyslogMoment::LosesLine:
        std::atomic_ref(status.lostLogLines).fetch_add(1, std::memory_order_relaxed); // any thread may
        return Put(status.lostLogLineAt, Microseconds(CLOCK_MONOTONIC_COARSE));
    }
}

} // namespace

void KeldStatusOpen(const char *version)
{
    std::memcpy(status.magic, kKeldStatusMagic, sizeof status.magic);
    status.version = kKeldStatusVersion;
    status.size = sizeof status;
    status.process = static_cast<std::uint64_t>(getpid());
    status.processStart = KeldProcessStart();
    status.startedAt = Microseconds(CLOCK_REALTIME);
    PutText(status.boot, sizeof status.boot, KeldBootId());
    PutText(status.daemonVersion, sizeof status.daemonVersion, version);
    KeldStatusThread &alarm = status.threads[kKeldStatusAlarmThread]; // runs already, and does nothing yet
    PutText(alarm.name, sizeof alarm.name, "KeldAlarm");
    Put(alarm.state, StateWord(static_cast<unsigned>(KeldStanding::Idle)));
    Take(kKeldStatusMainThread, "main");
    LayFileUnder();
    KSyslog_SetObserver(ObserveLog);
}

void KeldStatusPhase(KeldPhase phase, int exitStatus)
{
    Put(status.phase, static_cast<std::uint64_t>(static_cast<unsigned char>(exitStatus)) << 8 |
                          static_cast<std::uint64_t>(phase));
}

void KeldStatusAgentStarts() { Add(status.agentsStarted); }

void KeldStatusObservation(std::size_t channel, std::size_t bytes)
{
    Add(status.observations);
    if (channel >= kKeldStatusChannels) return;
    Add(status.channels[channel].observations);
    Add(status.channels[channel].bytes, bytes);
}

void KeldStatusDropped(std::size_t channel)
{
    if (channel < kKeldStatusChannels) Add(status.channels[channel].dropped);
}

void KeldStatusQueued(std::size_t agent, std::uint64_t count)
{
    if (agent < kKeldStatusAgents) Put(status.queued[kKeldStatusFirstAgent + agent], count);
}

void KeldStatusAlarmThreadBegins() { own = &status.threads[kKeldStatusAlarmThread]; }

void KeldStatusAgentBegins(std::size_t number, const char *name)
{
    if (number < kKeldStatusAgents) Take(kKeldStatusFirstAgent + number, name);
}

void KeldStatusStands(KeldStanding standing)
{
    Put(own->state, StateWord(static_cast<unsigned>(standing)));
}

KeldStatusScope::KeldStatusScope(unsigned standing) : mBefore(Get(own->state))
{
    Put(own->state, StateWord(standing));
}
KeldStatusScope::~KeldStatusScope() { Put(own->state, mBefore); }

void KeldStatusTaken()
{
    Add(own->taken);
    KeldStatusStands(KeldStanding::Works);
}

void KeldStatusFate(JournalFate fate)
{
    static_assert(static_cast<std::size_t>(JournalFate::Lost) < kKeldStatusFates);
    Add(own->fates[static_cast<std::size_t>(fate)]);
}

void KeldStatusEvent(JournalDelivery state)
{
    static_assert(static_cast<std::size_t>(JournalDelivery::LostAtExit) < kKeldStatusDeliveries);
    Add(own->deliveries[static_cast<std::size_t>(state)]);
}

void KeldStatusEventsWaiting(std::size_t count) { Put(status.eventsWaiting, count); }

void KeldStatusLimit(std::uint64_t sinceSeconds, std::uint64_t used, std::uint64_t max)
{
    Put(status.limitSince, sinceSeconds);
    Put(status.limitUsed, used);
    Put(status.limitMax, max);
}

void KeldStatusTraceClients(std::size_t count) { Put(status.traceClients, count); }
