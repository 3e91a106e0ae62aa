// What the daemon is doing and has done, counted where somebody outside can read it even when every thread
// is stuck, and after a crash: kltlibs/statusfile.h is the layout.
//
// Counting is one plain store into memory: no lock, no system call, nothing that can fail. The memory is
// the daemon's own until KeldStatusOpen lays a file under it; when that cannot be made, it stays so, and
// nobody is told. Each thread counts in a place of its own; one that never took a place counts for nothing.
#ifndef KELD_STATUS_H
#define KELD_STATUS_H

#include <kltlibs/statusfile.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>

// ---- Main thread ------------------------------------------------------------------------------------

// Puts keld-status in its place. Once, when the run directory is this daemon's, before any agent starts.
// version: of the daemon.
void KeldStatusOpen(const char *version);

void KeldStatusPhase(KeldPhase phase, int exitStatus = 0);
void KeldStatusAgentStarts();

// channel: a context's number.
void KeldStatusObservation(std::size_t channel, std::size_t bytes);
void KeldStatusDropped(std::size_t channel);
void KeldStatusQueued(std::size_t agent, std::uint64_t count); // agent: its number

// ---- Any thread -------------------------------------------------------------------------------------

// The calling thread is that one from now on. Agents are numbered from 0; one beyond the last has no place.
void KeldStatusAlarmThreadBegins(); // idle, until it says otherwise
void KeldStatusAgentBegins(std::size_t number, const char *name);

// What the calling thread stands in from now on.
void KeldStatusStands(KeldStanding standing);

// The same until the end of a scope. The thread then stands in what it stood in before, since when that
// began.
class KeldStatusScope {
public:
    explicit KeldStatusScope(KeldStanding standing) : KeldStatusScope(static_cast<unsigned>(standing)) {}
    static KeldStatusScope Pipe(std::size_t agent)
    {
        return KeldStatusScope(
            static_cast<unsigned>(KeldStanding::Pipe) +
            static_cast<unsigned>(kKeldStatusFirstAgent + std::min(agent, kKeldStatusAgents - 1)));
    }
    ~KeldStatusScope();
    KeldStatusScope(const KeldStatusScope &) = delete;
    KeldStatusScope &operator=(const KeldStatusScope &) = delete;

private:
    explicit KeldStatusScope(unsigned standing);
    const std::uint64_t mBefore;
};

void KeldStatusTaken(); // one observation goes to its handler: the calling agent works on it from now on
void KeldStatusFate(JournalFate fate);
void KeldStatusEvent(JournalDelivery state);
void KeldStatusEventsWaiting(std::size_t count);
void KeldStatusLimit(std::uint64_t sinceSeconds, std::uint64_t used, std::uint64_t max);
void KeldStatusTraceClients(std::size_t count);

#endif
