// What can be seen of a daemon without asking it: its process, and what its sockets hold.
//
// Nothing here connects, locks or waits: the system is asked for its own lists.
#ifndef KELADM_STATUSOUTSIDE_H
#define KELADM_STATUSOUTSIDE_H

#include <array>
#include <cstdint>
#include <kltlibs/statusfile.h>
#include <optional>
#include <string>

struct StatusProcess {
    std::uint64_t start = 0;          // as KeldStatusFile::processStart
    char state = 0;                   // as ps shows it
    std::optional<bool> isReplaced{}; // its program's file has been replaced or removed since
};

struct StatusSockets {
    struct Listener {
        std::uint32_t waiting = 0; // connections that nobody has accepted
        std::uint32_t room = 0;    // for so many
    };
    std::optional<Listener> receiver; // none: nobody listens there
    // What nobody has read yet: of an asynchronous channel the first datagram's bytes, of the producers'
    // all.
    std::array<std::uint64_t, kKeldStatusChannels> waitingBytes{};
};

struct StatusOutside {
    std::uint64_t wall = 0, monotonic = 0; // now, in microseconds
    std::string boot;
    std::optional<int> serving;           // the process that has the run directory's lock
    std::optional<StatusProcess> process; // the one that was asked about; none: it is not there
    std::optional<StatusSockets> sockets; // none where the system does not tell
};

// process: the one that the status file names, or 0. Throws Failure when the run directory cannot be used.
StatusOutside LookOutside(std::uint64_t process);

#endif
