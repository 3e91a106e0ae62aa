// A user's program that is run for each event.
#ifndef KELADM_EVENTPROGRAM_H
#define KELADM_EVENTPROGRAM_H

#include <chrono>
#include <string>

class EventProgram {
public:
    // limit: how long it may run. stopFd is a StopSignal's: it ends the wait for a program.
    EventProgram(std::string path, std::chrono::milliseconds limit, int stopFd)
        : mPath(std::move(path)), mLimit(limit), mStopFd(stopFd)
    {
    }

    // Runs it, with input and a newline on its standard input and what it writes on standard error, and
    // waits for its end. One that takes too long is killed; that, and a failure, is named on standard
    // error. No shell, and no arguments.
    void Run(const std::string &input) const;

private:
    const std::string mPath;
    const std::chrono::milliseconds mLimit;
    const int mStopFd;
};

#endif
