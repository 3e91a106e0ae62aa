// A host of one's own: a run directory that goes with its owner, and a daemon that serves it.
#ifndef KELADM_PRIVATEHOST_H
#define KELADM_PRIVATEHOST_H

#include "console.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

// A new folder below TMPDIR, or /tmp, which KALTOR_RUN_DIR names while it lives. Throws Failure.
class PrivateRunDirectory {
public:
    PrivateRunDirectory();
    ~PrivateRunDirectory();
    PrivateRunDirectory(const PrivateRunDirectory &) = delete;
    PrivateRunDirectory &operator=(const PrivateRunDirectory &) = delete;

    const std::string &Path() const { return mPath; }

private:
    std::string mPath;
    std::optional<std::string> mBefore;
};

// What a child process gets beside the ordinary: variables and descriptors.
struct Inheritance {
    std::vector<std::pair<std::string, std::string>> variables; // of the environment
    std::vector<int> fds;                                       // under the same numbers
};

// The daemon as a child process; it never outlives this one.
class DaemonProcess {
public:
    // Starts the program with the present environment; its standard error goes to errorFile. Throws
    // Failure.
    DaemonProcess(const std::string &program, const std::string &errorFile,
                  const Inheritance &inheritance = {});
    ~DaemonProcess(); // ends it, with force after ten seconds
    DaemonProcess(const DaemonProcess &) = delete;
    DaemonProcess &operator=(const DaemonProcess &) = delete;

    // Waits until the daemon serves every channel and the trace. Throws Failure when it ends instead, or
    // takes longer than a minute; Stopped.
    void WaitReady(const StopSignal &stop);

    // For a poll: readable once the daemon has ended.
    pollfd Watch() const { return {mEnded.Get(), POLLIN, 0}; }

    // Asks it to end, waits, and tells what went wrong: nothing for an orderly end with status 0.
    std::optional<std::string> Stop();

    // Waits for a daemon that is about to end by itself, and tells how it ended.
    std::string AwaitEnd();

private:
    bool WaitEnd(Clock::time_point until);
    std::string HowItEnded() const;

    std::string mErrorFile;
    pid_t mPid = -1; // -1: waited for
    UniqueFd mEnded;
    int mStatus = 0;
};

// The daemon to start: named, or KELD_DAEMON, or found beside this program, or in PATH. Throws Failure.
std::string FindDaemon(const std::string &named);

// The keld-lab to start: named, or found beside this program or where it is installed.
// Throws Failure.
std::string FindLab(const std::string &named);

#endif
