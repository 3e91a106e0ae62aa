// How a daemon is: what its status file says and what is seen from outside, put together and judged.
#ifndef KELADM_STATUSREPORT_H
#define KELADM_STATUSREPORT_H

#include "statusFile.h"
#include "statusOutside.h"

#include <array>
#include <string>
#include <utility>
#include <vector>

enum class Health : int { Well = 0, Degraded = 1, Stuck = 2, NotRunning = 3 }; // the exit status
const char *HealthName(Health health);                                         // "not running"

// Something that is not as it should be.
struct StatusFinding {
    Health health;
    std::string what;
    std::string remedy; // what to do about it; may be empty

    std::string Text() const { return remedy.empty() ? what : what + "; " + remedy; }
};

// Those that have happened, by their words.
using StatusCounts = std::vector<std::pair<std::string, std::uint64_t>>;

struct StatusThread {
    std::string name;
    bool alive = true;
    bool idle = false;              // has nothing to do
    std::string stands;             // "posting, waits for the receiver"
    std::uint64_t microseconds = 0; // for so long
    std::uint64_t received = 0;
    std::uint64_t waiting = 0; // in its pipe
    StatusCounts fates;        // those that came
};

struct StatusChannel {
    std::string name; // "async-3", "user"
    std::uint64_t observations = 0;
    std::uint64_t bytes = 0;
    std::uint64_t dropped = 0;      // datagrams and packets
    std::uint64_t waitingBytes = 0; // as StatusSockets::waitingBytes
};

struct StatusReport {
    std::vector<StatusFinding> findings; // never empty, the worst first
    bool running = false;
    bool counted = false; // what stands below is there
    std::uint64_t process = 0;
    std::uint64_t startedAt = 0; // microseconds, wall clock
    std::uint64_t endedAt = 0; // about when it was last seen to do something; 0 while it runs or if unknown
    std::string version;
    StatusThread main, alarm;
    std::vector<StatusThread> agents;
    std::uint64_t observations = 0;
    std::vector<StatusChannel> channels;
    StatusCounts deliveries;                   // of events; "waiting" counts every try that failed
    std::uint64_t eventsWaiting = 0;           // for another try
    std::uint64_t limitUsed = 0, limitMax = 0; // events in this minute
    std::uint64_t limited = 0;                 // and those that were too many
    std::uint64_t traceClients = 0, lostLogLines = 0;
    std::optional<StatusSockets> sockets;

    Health OverallHealth() const { return findings.front().health; }
    std::string Sentence() const; // which it is, and what to do
};

// ownVersion: this program's, to tell whether the daemon is an older one.
StatusReport JudgeStatus(const StatusFile &file, const StatusOutside &outside,
                         const std::string &ownVersion);

// "4.2 s", "3 min 12 s", "5 h 10 min", "12 d 3 h".
std::string AgeText(std::uint64_t microseconds);

#endif
