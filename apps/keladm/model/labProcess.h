// keld-lab as a child process: told what time it is, and asked whether all that is due has happened.
#ifndef KELADM_LABPROCESS_H
#define KELADM_LABPROCESS_H

#include "privateHost.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

// The diagnostic log of one daemon after the other, in memory.
class LabLog {
public:
    LabLog(); // throws Failure

    int Fd() const { return mFd.Get(); }

    // The whole lines since the last call, without newline, priority and time.
    std::vector<std::string> TakeLines();

private:
    UniqueFd mFd;
    off_t mTaken = 0;
    std::string mRest;
};

// What a line of the log says when it traces an observation or an event.
struct LabTrace {
    std::string thread;
    std::uint64_t timestamp = 0; // microseconds
    std::string id;
};
std::optional<LabTrace> ParseLabTrace(std::string_view line);

class LabProcess {
public:
    static constexpr std::uint64_t kStart = 1772366400; // 2026-03-01 12:00:00 UTC

    // Starts the program in the present run directory with its clock at that second; its log goes to logFd,
    // its standard error to errorFile. Throws Failure.
    LabProcess(const std::string &program, const std::string &errorFile, std::uint64_t seconds, int logFd);

    // One command is answered before the next is given: "settle", "clock to SECONDS", "clock set SECONDS".
    // Throws Failure.
    void Command(const std::string &line);

    struct Answer {
        bool complete = false;     // else it has not come yet, or only a part of it
        std::uint64_t seconds = 0; // what time it is
        std::string busy;          // who keeps it from settling; empty when it has
    };

    // What has come, without waiting. Throws Failure when the daemon has ended.
    Answer TakeAnswer();

    // For a poll: readable when there is something to take.
    pollfd Watch() const { return {mChannel.Get(), POLLIN, 0}; }

    // As the daemon's own.
    std::optional<std::string> Stop() { return mDaemon->Stop(); }

private:
    UniqueFd mChannel;
    std::optional<DaemonProcess> mDaemon;
    std::string mAnswer;
};

#endif
