// From the main thread to the agents: every record of a batch into the pipe of every agent whose
// subscription matches.
#ifndef KELD_DISPATCH_H
#define KELD_DISPATCH_H

#include "keldStream.h"

#include <cstddef>
#include <cstdint>

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

#endif
