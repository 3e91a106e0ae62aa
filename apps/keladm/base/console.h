// Standard output that may be a pipe, a terminal or a full disk, and the signals that end a watcher.
#ifndef KELADM_CONSOLE_H
#define KELADM_CONSOLE_H

#include <chrono>
#include <csignal>
#include <kltlibs/uniquefd.h>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>

// Thrown where a program ends without having failed.
struct OutputClosed {}; // nobody reads standard output any more
struct Stopped {};      // SIGINT, SIGTERM or SIGHUP

// While it lives, SIGINT, SIGTERM and SIGHUP arrive through a descriptor and interrupt nothing. Those
// that this program's starter has ignored (nohup, a script's background) stay ignored.
class StopSignal {
public:
    StopSignal();
    ~StopSignal();
    StopSignal(const StopSignal &) = delete;
    StopSignal &operator=(const StopSignal &) = delete;

    int Get() const { return mFd.Get(); }

private:
    sigset_t mBefore;
    UniqueFd mFd;
};

// Lines for a descriptor: kept until Flush, which waits for a slow reader but never past a stop. To a
// terminal they go as PrintableLines: whatever a text holds, no terminal obeys it.
class Output {
public:
    // stopFd, when there is one, is a StopSignal's.
    explicit Output(int fd, int stopFd = -1);

    bool Colour() const; // a terminal, and NO_COLOR is not set
    void Text(std::string_view text);
    void Line(std::string_view text);
    void ColouredLine(std::string_view text); // as it is: made Printable by the caller, where it must be
    void Flush();                             // throws OutputClosed, Stopped, Failure

    // For a poll: ready once the reader has gone.
    pollfd Watch() const { return {mFd, 0, 0}; }

private:
    int mFd;
    int mStopFd;
    bool mTerminal;
    std::string mWaiting;
};

using Clock = std::chrono::steady_clock;

// Ends a wait of a program that watches: for the stop signal, and for a reader that has gone.
struct Ends {
    Ends(const StopSignal &stop, const Output &output) : fds{{stop.Get(), POLLIN, 0}, output.Watch()} {}
    bool Stopping() const; // by a signal; throws OutputClosed
    pollfd fds[2];
};

// Polls fds until one is ready or until is reached.
void PollUntil(std::span<pollfd> fds, Clock::time_point until);

// A line for standard error, behind "keladm SUBCOMMAND: ", as PrintableLines.
void Tell(std::string_view subcommand, std::string_view message);

// Opens standard descriptors that are closed on /dev/null. A socket or a file would else get their number,
// and a stray line would be written into it. To be called first of all.
void OpenStandardDescriptors();

// The folder of this program's executable file.
std::string ExecutableFolder();

#endif
