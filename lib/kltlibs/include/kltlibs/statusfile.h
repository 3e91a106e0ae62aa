// keld-status: the file in the run directory that the daemon counts in while it runs, and that still lies
// there when it has been killed.
//
// The daemon has it mapped and writes each word with one plain store. A reader maps it, too; it finds each
// word whole, but two of them at slightly different times: they agree when nothing happens, or when the
// daemon has ended. Whether the daemon still lives the file cannot say: that is asked of the process that
// it names.
//
// Times are microseconds. Those of the monotonic clock count from when the host was booted, and mean
// nothing behind the next boot. Texts end with a NUL. All of it is little-endian; docs/formats.md has it
// byte for byte.
#ifndef KLTLIBS_STATUSFILE_H
#define KLTLIBS_STATUSFILE_H

#include "kltlibs/journalrecord.h"
#include "kltlibs/kel.h"

#include <cstddef>
#include <cstdint>

inline constexpr char kKeldStatusMagic[8] = {'K', 'E', 'L', 'D', 'S', 'T', 'A', 'T'};
inline constexpr std::uint32_t kKeldStatusVersion = 1; // of the layout: any change is another one
inline constexpr const char *kKeldStatusName = "keld-status";

inline constexpr std::size_t kKeldStatusMainThread = 0;
inline constexpr std::size_t kKeldStatusAlarmThread = 1;
inline constexpr std::size_t kKeldStatusFirstAgent = 2; // and the others behind it, by their numbers
inline constexpr std::size_t kKeldStatusAgents = 32;
inline constexpr std::size_t kKeldStatusThreads = kKeldStatusFirstAgent + kKeldStatusAgents;
inline constexpr std::size_t kKeldStatusChannels = KELLIB_ASYNC_CONTEXTS + 1; // the last is the producers'
inline constexpr std::size_t kKeldStatusFates = 20;
inline constexpr std::size_t kKeldStatusDeliveries = 10;

// What a thread stands in: the low 8 bits of its state word; the others are since when, on the monotonic
// clock.
enum class KeldStanding : std::uint8_t {
    Unused = 0, // there is no such thread
    Begins = 1,
    Idle = 2,     // waits for something to do
    Works = 3,    // the main thread on a batch, an agent on one observation
    Receiver = 4, // posts an event, and waits for the receiver
    Log = 5,      // waits for the system log
    Retries = 6,  // goes through the events that could not be sent
    Leaves = 7,   // gives up its pipe
    Ended = 8,    // by itself: an agent that is not there any more
    Stops = 9,    // waits for the agents to end, one after the other
    Pipe = 128,   // and the number of a thread: waits for room in that agent's pipe
};
inline constexpr unsigned kKeldStandingBits = 8;

enum class KeldPhase : std::uint8_t { Begins = 0, Serves = 1, Leaves = 2, Ended = 3 };

struct KeldStatusThread {
    char name[64];
    std::uint64_t state;                             // since when << 8 | KeldStanding
    std::uint64_t taken;                             // observations that were handed to a handler
    std::uint64_t deliveries[kKeldStatusDeliveries]; // of events, told on this thread: by JournalDelivery
    std::uint64_t fates[kKeldStatusFates];           // of observations: by JournalFate
};

struct KeldStatusChannel {
    std::uint64_t observations;
    std::uint64_t bytes;
    std::uint64_t dropped; // datagrams and packets that held something else
};

struct KeldStatusFile {
    // Written before the file has its name.
    char magic[8];
    std::uint32_t version;
    std::uint32_t size;         // of the file
    std::uint64_t process;      // its ID
    std::uint64_t processStart; // in clock ticks since the boot, as field 22 of /proc/PID/stat
    std::uint64_t startedAt;    // wall clock
    char boot[40];              // /proc/sys/kernel/random/boot_id
    char daemonVersion[48];

    // By whichever thread it concerns.
    std::uint64_t phase;         // exit status << 8 | KeldPhase
    std::uint64_t eventsWaiting; // for another try, at present
    std::uint64_t limitSince;    // when the minute of the event limit began: seconds, wall clock
    std::uint64_t limitUsed;     // events in that minute, those that were too many included
    std::uint64_t limitMax;
    std::uint64_t lostLogLines;
    std::uint64_t lostLogLineAt; // the last of them: monotonic clock
    std::uint64_t traceClients;  // at present

    // By the main thread.
    std::uint64_t observations;  // that came in
    std::uint64_t agentsStarted; // how many agents there should be
    std::uint64_t spare[6];
    std::uint64_t queued[kKeldStatusThreads]; // observations that were given to each agent
    KeldStatusChannel channels[kKeldStatusChannels];

    std::uint64_t spareToo;

    KeldStatusThread threads[kKeldStatusThreads];
    char unused[320]; // to whole pages
};
static_assert(offsetof(KeldStatusFile, phase) == 128);
static_assert(offsetof(KeldStatusFile, observations) == 192, "the main thread has cache lines of its own");
static_assert(offsetof(KeldStatusFile, queued) == 256);
static_assert(offsetof(KeldStatusFile, channels) == 528);
static_assert(offsetof(KeldStatusFile, threads) == 1088);
static_assert(sizeof(KeldStatusThread) == 320, "each thread has cache lines of its own");
static_assert(sizeof(KeldStatusFile) == 12288);

#endif
