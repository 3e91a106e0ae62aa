// The daemon's trace across the ends of its connections. The daemon cuts off a client that falls too far
// behind, and a daemon that is restarted ends them all: either way one connects again, and the history that
// every connection begins with closes the gap, as far as it reaches. What it does not reach is named.
#ifndef KELADM_TRACECONNECTION_H
#define KELADM_TRACECONNECTION_H

#include "console.h"
#include "traceLine.h"

#include <optional>
#include <string>
#include <string_view>

class TraceConnection {
public:
    // Connects. Throws Failure, with kExitNoPeer when no daemon serves the run directory.
    TraceConnection();

    bool IsConnected() const { return bool(mFd); }
    bool IsLive() const { return mPhase == Live; } // the history has come, and what happens now comes next

    pid_t Daemon() const { return mDaemon; } // the process that listens, as far as it is known

    // For a poll: ready when there is something to do. While no daemon is there, nothing is polled, and
    // there is something to do at Again.
    pollfd Watch() const { return {mFd.Get(), POLLIN, 0}; }
    Clock::time_point Again() const { return mFd ? Clock::time_point::max() : mAgain; }

    // Reads what is there, or connects again. Says what has become of the connection, if it is news. Throws
    // Failure.
    std::optional<std::string> Proceed();

    struct Item {
        std::string line;         // a trace line; of a gap, why there is one
        bool isGap = false;       // lines are missing
        std::string after, until; // of a gap: the times on its edges, as trace lines have them
        bool isHistory = false;   // from before the first connection
    };

    // The next of what has come, in its order.
    std::optional<Item> Next();

private:
    int Connect(); // 0 or an errno value
    std::optional<std::string> TryAgain();
    std::optional<Item> Resume();
    void Note(const std::string &line);

    UniqueFd mFd;
    pid_t mDaemon = 0; // the process that listens; 0 when it is not known
    bool mSameDaemon = true;
    Clock::time_point mEnded, mAgain;
    TraceSplitter mSplitter;
    enum { History, Resuming, Live } mPhase = History;
    std::string mLast;                 // the last line that has come
    std::size_t mLastTimes = 0;        // and how many like it have come in a row
    std::vector<std::string> mResumed; // the history of a connection that is not the first
    std::size_t mResumedNext = 0;
};

#endif
