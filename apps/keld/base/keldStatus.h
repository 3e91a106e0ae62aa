// What the daemon is doing and has done, counted where somebody outside can read it even when every thread
// is stuck, and after a crash: kltlibs/statusfile.h is the layout.
//
// Counting is one plain store into memory: no lock, no system call, nothing that can fail. The memory is
// the daemon's own until KeldStatusOpen lays a file under it; when that cannot be made, it stays so, and
// nobody is told. Each thread counts in a place of its own; one that never took a place counts for nothing.
#ifndef KELD_STATUS_H
#define KELD_STATUS_H

#include <kltlibs/statusfile.h>

#include <cstddef>
#include <cstdint>

// ---- Main thread ------------------------------------------------------------------------------------

// Puts keld-status in its place. Once, when the run directory is this daemon's, before any agent starts.
// version: of the daemon. fates: their names, ended by a null; more than there is room for are left out.
void KeldStatusOpen(const char *version, const char *const *fates);

void KeldStatusPhase(KeldPhase phase, int exitStatus = 0);
void KeldStatusAgentStarts();

// channel: the one from which the observations that follow come.
void KeldStatusReads(std::size_t channel);
void KeldStatusObservation(std::size_t bytes, bool wanted);
void KeldStatusQueued(std::size_t agent, std::uint64_t count); // agent: what KeldStatusPlace gave it

// ---- Any thread -------------------------------------------------------------------------------------

// Gives the calling thread a place under that name; beyond the last, none. An agent, once.
void KeldStatusThreadBegins(const char *name);
void KeldStatusAlarmThreadBegins(); // the alarm thread, which has its own; it idles until it says otherwise
std::size_t KeldStatusPlace();      // of the calling thread; kKeldStatusThreads without one

// What the calling thread stands in from now on.
void KeldStatusStands(KeldStanding standing);

// The same to the end of a scope; what it stood in before goes on from when it began.
class KeldStatusScope {
public:
    explicit KeldStatusScope(KeldStanding standing) : KeldStatusScope(static_cast<unsigned>(standing)) {}
    static KeldStatusScope Pipe(std::size_t agent)
    {
        return KeldStatusScope(static_cast<unsigned>(KeldStanding::Pipe) + static_cast<unsigned>(agent));
    }
    ~KeldStatusScope();
    KeldStatusScope(const KeldStatusScope &) = delete;
    KeldStatusScope &operator=(const KeldStatusScope &) = delete;

private:
    explicit KeldStatusScope(unsigned standing);
    const std::uint64_t mBefore;
};

void KeldStatusTaken(); // one observation goes to its handler: the calling agent works on it from now on
void KeldStatusFate(std::size_t fate);
void KeldStatusEvent(KeldDelivery delivery);
void KeldStatusLimit(std::uint64_t sinceSeconds, std::uint64_t used, std::uint64_t max);
void KeldStatusTraceClients(std::size_t count);

#endif
