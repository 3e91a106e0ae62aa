// Agents: the threads that correlators run on, and what each of them owns.
#ifndef KELD_AGENT_H
#define KELD_AGENT_H

#include "keldStream.h"

#include <functional>
#include <memory>
#include <poll.h>
#include <string>
#include <vector>

inline constexpr unsigned kKeldAgentsMax = 32;

// ---- Main thread ------------------------------------------------------------------------------------

using KeldAgentEntry = void (*)();

// Starts one agent thread; a failure is logged and leaves the daemon without that agent.
void KeldAgentStart(KeldAgentEntry entry);

// Returns when every started agent has registered its stream or has ended, so that no record can be
// read before the agents that want it are there.
void KeldAgentAwaitAll();

// Cancels and joins every agent, last started first. Sets the stopping flag.
void KeldAgentStopAll();

// ---- Agent threads ----------------------------------------------------------------------------------

struct KeldAgent {
    KeldSubscription subscription;
    KeldStream *stream = nullptr; // the dispatcher's, registered
    KeldAgentName name;
    int fd = -1; // the stream's read end
};

// Names the calling thread, subscribes it and registers its stream. 0 with *agent the caller's, to be
// ended with KeldAgentCleanup; otherwise an error code, logged.
int KeldAgentInit(const std::string &name, const std::vector<std::string> &domains,
                  const std::vector<std::string> &exactIds, KeldAgent **agent);

// Unregisters the stream, frees the agent and clears *agent. Null is allowed.
void KeldAgentCleanup(KeldAgent **agent);

// Waits for the next observation: 0 with *kel the caller's, or an error code, logged.
int KeldAgentWaitForKel(KeldAgent *agent, Kel **kel);

// True when the next observation was read already and is to be taken without polling first. Never once the
// daemon is leaving: an agent then goes to its poll after each observation, where it is cancelled.
bool KeldAgentGoesOn(const KeldAgent *agent);

// poll() without a time-out: the only place where an agent can be cancelled.
int KeldAgentPoll(pollfd *fds, nfds_t count);

// Sets an agent up, runs its loop and cleans up behind it; does nothing when it cannot be set up. A
// cancelled agent's stream stays registered, as the main thread may be writing to it.
void KeldAgentRun(const std::string &name, const std::vector<std::string> &domains,
                  const std::vector<std::string> &exactIds, const std::function<void(KeldAgent *)> &loop);

#endif
