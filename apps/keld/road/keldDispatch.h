// From the main thread to the agents: every record of a batch into the pipe of every agent whose
// subscription matches, and whole records out of the pipe again.
#ifndef KELD_DISPATCH_H
#define KELD_DISPATCH_H

#include "keldOwn.h"
#include "keldReadAhead.h"
#include "keldSubscription.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

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

// Empties the list and makes the lock: 0 or an errno value. Main thread, before any agent.
int KeldDispatchInit();

// 0 with *stream registered, behind all others; 1 without memory; 2 when the pipe could not be made.
// Agent thread.
int KeldStreamRegister(KeldAgentName owner, const KeldSubscription &subscription, KeldStream **stream);

// 0, or 2 when a descriptor could not be closed; the stream is gone. Reads and throws away what comes
// until it has the lock, so that the main thread cannot wait for this agent meanwhile. Agent thread.
int KeldStreamUnregister(KeldStream *stream);

// Writes the records of the buffer to the matching streams: to each with one write, unless its pipe is
// full. First to all of them without waiting, then to those whose pipe was full, in order of registration.
//
// 0, also when the exit flag ended it: what was not begun is then given to nobody, and no record stays half
// written. Otherwise the errno of a write that failed, which ends it at once. channel is where they came
// from: a context's number. Main thread.
int KeldDispatch(std::int32_t channel, const std::byte *buffer, std::size_t byteCount);

// How many observations have come in. Main thread.
std::uint64_t KeldDispatchCount();

// Tells the journal what no agent will take any more. Main thread, when no agent runs any more.
void KeldDispatchTellLost();

// How many streams are registered. Any thread.
std::size_t KeldDispatchStreamCount();

// How many whole records were written to pipes and never taken for a handler. Main thread, when no agent
// runs any more.
std::uint64_t KeldDispatchWaiting();

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
