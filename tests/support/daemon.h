// The daemon as a process of its own.
#ifndef TESTSUPPORT_DAEMON_H
#define TESTSUPPORT_DAEMON_H

#include "logCapture.h"

#include <chrono>
#include <csignal>
#include <cstdint>
#include <kltlibs/uniquefd.h>
#include <string>
#include <sys/types.h>
#include <vector>

// Which daemon, and how its log is caught.
struct DaemonProgram {
    std::string path;
    std::string preload; // the log shim, where it is not linked in
};

#ifdef KELD_BINARY
inline const DaemonProgram kShippedDaemon{KELD_BINARY, KELD_LOGSHIM};
inline const DaemonProgram kHandClockDaemon{KELD_LAB_BINARY, ""}; // obeys Advance and Set
#endif

// A sanitizer keeps freed memory back, and takes its time.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Threads of a program that are a sanitizer's own.
#ifdef __SANITIZE_THREAD__
constexpr unsigned kSanitizerThreads = 1;
#else
constexpr unsigned kSanitizerThreads = 0;
#endif

// Starts the daemon in the present run directory (make a RunDir first), with its log and its output
// caught, and nothing of it left behind at the end.
//
// A daemon that still runs at the end is told to stop, and must then exit with status 0. It is also
// killed when the test process dies. One thread only. Throws std::runtime_error when it cannot start.
class Daemon {
public:
    explicit Daemon(const DaemonProgram &program, const std::vector<std::string> &arguments = {},
                    const std::vector<std::string> &environment = {});
    ~Daemon();
    Daemon(const Daemon &) = delete;
    Daemon &operator=(const Daemon &) = delete;

    // Waits until every channel takes records and connections, without making one; false when the daemon
    // has ended or has not got there within the limit.
    bool WaitUntilReady();

    // Sends the signal and waits: the exit status, or 128 and the signal that ended it. A daemon that
    // outlives the limit fails the test and is killed.
    int Terminate(int signal = SIGTERM, std::chrono::milliseconds limit = kWaitLimit);
    int WaitForExit(std::chrono::milliseconds limit = kWaitLimit);

    bool IsRunning();
    void Signal(int signal);
    pid_t Pid() const { return mPid; }

    // True while its main thread has nothing to do, or waits for another.
    bool IsAsleep() const { return State() == 'S'; }
    // Stops all of it, as a debugger or a shell does, and lets it go on.
    void StopAndContinue();

    const LogCapture &Log() const { return mLog; }

    // Standard output and standard error, in the order written.
    std::string Output() const { return Written(false); }

    // Of that, the lines for whoever started it ("keld: version 0.1.0 is ready: ..."), without "keld: ";
    // Output has the others.
    std::string Told() const { return Written(true); }

    // Of the running process: processor time used so far, threads, open descriptors.
    std::chrono::nanoseconds ProcessorTime() const;
    std::size_t ThreadCount() const;
    std::size_t DescriptorCount() const;

    // Its memory: to be compared only where kSanitized is false.
    std::size_t ResidentBytes() const;

    // Moves the clock of the hand-clock daemon, as HandClock does, also under traffic. All alarms that fall
    // due have been handled on return.
    void Advance(std::uint64_t seconds);

private:
    std::string Written(bool told) const;
    char State() const;
    std::size_t CountEntries(const char *directory) const;

    LogCapture mLog{LogCapture::Of::Child};
    CapturedText mOutput;
    pid_t mPid = -1;
    UniqueFd mPidFd;
    UniqueFd mLabFd;
    int mExitStatus = -1; // once it has ended
};

#endif
