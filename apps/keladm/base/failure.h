// How a tool fails, and what it ends with.
#ifndef KELADM_FAILURE_H
#define KELADM_FAILURE_H

#include <stdexcept>
#include <string>

enum ExitStatus : int {
    kExitOk = 0,
    kExitFailed = 1,   // what was asked could not be done, or an expectation was not met
    kExitUsage = 2,    // what was asked makes no sense: an option, an argument, a line of a scenario
    kExitNoPeer = 3,   // no daemon serves the run directory, or no place for a receiver
    kExitRefused = 4,  // the daemon serves as many programs as it can, and has taken nothing
    kExitNotKnown = 5, // whether the daemon has taken what was sent
};

// Ends the program with a message for the user and an exit status.
struct Failure : std::runtime_error {
    Failure(ExitStatus exitStatus, const std::string &message)
        : std::runtime_error(message), status(exitStatus)
    {
    }
    ExitStatus status;
};

#endif
