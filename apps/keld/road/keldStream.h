// One agent's way to its records: the pipe that the main thread writes to, what both count, and whole
// records out of the pipe again.
#ifndef KELD_STREAM_H
#define KELD_STREAM_H

#include "keldOwn.h"
#include "keldReadAhead.h"
#include "keldSubscription.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

using KeldAgentName = std::shared_ptr<const std::string>;

struct KeldStream {
    // Fixed after registration.
    std::uint16_t number = 0; // the agent's, from 0 in order of registration
    UniqueFd readFd;
    UniqueFd writeFd;
    KeldSubscription subscription;
    KeldAgentName owner;
    // The reading agent's own.
    KeldReadAhead ahead;
    // The main thread's own: how far the batch at hand is written.
    std::size_t place = 0; // of its first record that is wanted and not wholly written
    std::size_t begun = 0; // bytes of that one that are
    // Whole records: written by the main thread, taken by the agent for its handler.
    std::uint64_t queued = 0;
    std::atomic<std::uint64_t> taken = 0; // read at the exit, when an agent may still run
    // The last record that the journal was told goes to this agent, also when it was given up since; behind
    // queued when nobody has listened. Main thread only.
    std::uint64_t told = 0;
};

// Reads the stream's pipe until a whole record is there, over as many calls as it takes.
//
// Returns 0 with *complete set and *kel the caller's, to be ended with Kel_Free; 0 with *complete
// clear when the pipe ran dry (call again when readable); 1 when Kel_MakeKel refused the record;
// 2 when the pipe could not be read. Panics on end of file: the dispatcher's state is broken.
//
// Reads all that waits and keeps what lies behind the record for the calls that follow. Agent thread only;
// takes no lock.
int KeldStreamReadKel(KeldStream *stream, Kel **kel, bool *complete);

// True when the next KeldStreamReadKel needs no reading: poll does not tell of a record that was read
// ahead. Agent thread only.
bool KeldStreamHoldsKel(const KeldStream *stream);

#endif
