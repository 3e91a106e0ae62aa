// The receiver of events: what stands where the management agent would.
#ifndef TESTSUPPORT_EVENTSINK_H
#define TESTSUPPORT_EVENTSINK_H

#include "waitFor.h"

#include <cstddef>
#include <eventRecord.h>
#include <kltlibs/uniquefd.h>
#include <string>
#include <vector>

// "nox.problem.net.connectivity.lost(vmnic2, Production)": one event as one line to compare.
std::string ToText(const EventRecord &event);

// Listens on carad-pling.sock in the run directory. The daemon connects, sends and closes in one go,
// so that a test in the daemon's own process needs no thread here: what has been posted waits in the
// backlog until it is fetched.
//
// A record that does not decode fails the test. One thread only.
class EventSink {
public:
    // Room for as many connections as nobody has fetched; the system may give less (4096 ordinarily).
    static constexpr int kBacklog = 4096;

    EventSink() { Start(); }
    ~EventSink() { Stop(); }
    EventSink(const EventSink &) = delete;

    // Goes away, as an agent that is being restarted, and comes back. Stopping drops what was sent but not
    // fetched; hiding keeps it, until the next time. Allowed at any time.
    void Stop();
    void Hide();
    void Start(int backlog = kBacklog);

    // What has been sent since the last call, without waiting for more.
    std::vector<EventRecord> Drain() { return WaitFor(0); }
    std::vector<std::string> DrainTexts() { return WaitForTexts(0); }
    std::vector<std::vector<std::byte>> DrainRaw() { return WaitForRaw(0); }

    // Fetches until count events are there, or limit has passed; gives those that came.
    std::vector<EventRecord> WaitFor(std::size_t count, std::chrono::milliseconds limit = kWaitLimit);
    std::vector<std::string> WaitForTexts(std::size_t count, std::chrono::milliseconds limit = kWaitLimit);
    std::vector<std::vector<std::byte>> WaitForRaw(std::size_t count,
                                                   std::chrono::milliseconds limit = kWaitLimit);

    // The listening descriptor, for a test that is to accept without reading.
    int Fd() const { return mFd.Get(); }

private:
    UniqueFd mFd;
    UniqueFd mHidden; // where nobody can connect any more
};

#endif
