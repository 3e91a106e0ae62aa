// Observations on their way to the daemon.
#ifndef KELADM_SENDER_H
#define KELADM_SENDER_H

#include "console.h"
#include "observationWords.h"

#include <map>
#include <memory>

// Keeps the connection to each context that was used.
class Sender {
public:
    // stopFd, when there is one, is a StopSignal's: it ends a wait for a daemon that takes nothing, and so
    // does patience.
    explicit Sender(int stopFd = -1, Clock::duration patience = std::chrono::hours(24 * 365))
        : mStopFd(stopFd), mPatience(patience)
    {
    }

    // Throws Failure when no daemon serves the context.
    void Connect(int context) { Producer(context); }

    // Stamps a copy, with microseconds since the epoch or the present time, and sends it. Throws Failure,
    // with kExitRefused where the daemon has closed the connection; Stopped.
    void Send(const Observation &observation, std::optional<std::uint64_t> timestamp = {});

    // Ends all connections and waits until the daemon has taken what was sent. Throws Failure, with
    // kExitRefused or kExitNotKnown.
    void Close();

private:
    KelProducer *Producer(int context);

    using ProducerPtr = std::unique_ptr<KelProducer, decltype(&KelProducer_Close)>;
    std::map<int, ProducerPtr> mProducers;
    int mStopFd;
    Clock::duration mPatience;
};

// Sends one observation and waits until the daemon has taken it; one that turns it away is asked again for
// a second. Throws Failure as Sender does.
void SendAndAwait(const Observation &observation);

#endif
