// The journal: what becomes of every observation and of every event.
#ifndef KLTLIBS_JOURNALRECORD_H
#define KLTLIBS_JOURNALRECORD_H

#include <cstdint>

// What becomes of an observation in one agent. Each that an agent takes out of its pipe gets exactly one;
// each that it does not is lost. The numbers are the journal's.
enum class JournalFate : std::uint8_t {
    NoHandler = 1,    // nobody knows the ID
    Ignored = 2,      // on purpose
    Posted = 3,       // an event was made of it
    Gathered = 4,     // until a time; what becomes of it then is an outcome
    Counted = 5,      // n of m
    HeldBack = 6,     // until a time
    Noted = 7,        // it changed what the agent remembers
    Unreadable = 8,   // an argument cannot be read, or is null
    LookUpFailed = 9, // the host does not tell what is needed
    HandlerFailed = 10,
    AgentEnded = 11, // before it took the observation out
    Lost = 12,       // it stood in the agent's pipe at the exit
};

// What became of observations that were gathered.
enum class JournalOutcome : std::uint8_t {
    Posted = 1,
    Discarded = 2,
    StillOpen = 3,
};

// An observation in an agent: the agent's number, and the how manyth it was that the agent took.
struct JournalOrigin {
    std::uint16_t agent = 0;
    std::uint64_t count = 0; // from 1 on; 0 is none
};

#endif
