// The books of a soak: what was sent, and what must have come of each.
//
// It knows the daemon only from outside: its log says in order which agent took which observation in,
// what it posted, what the rate limit dropped and what had to wait; the receiver says what arrived.
// Everything must come out even: each agent takes in what its producers sent, all of it, once, in
// order; each row becomes its event or a line that says it was dropped; each posted event arrives once,
// with the right arguments, unless the log says that it waits or was abandoned.
#ifndef TESTS_SOAK_LEDGER_H
#define TESTS_SOAK_LEDGER_H

#include "traffic.h"

#include <atomic>
#include <deque>
#include <eventRecord.h>
#include <map>
#include <mutex>

// One producer from its first observation to its last.
struct ProducerLife {
    std::atomic<Serial> next = 0; // to be sent; counted before it is sent
    // The ledger's, for each agent: what is next to be taken in, and whose event is next to come at best.
    std::vector<Serial> taken, delivered;
};

// One thread, where nothing else is said.
class Ledger {
public:
    explicit Ledger(const Traffic &traffic);

    // Any thread, before the first observation is sent; stays to the end.
    ProducerLife &Begin();

    // Whole lines; an event only after the lines that were written before it came.
    void TakeLog(std::string_view lines);
    void TakeEvent(const EventRecord &event);

    // What is owed, for a failure message: nothing when all that was sent was taken in, and all that was
    // posted has come, waits or was abandoned.
    std::string Owed();
    bool HasFailed() const { return mFailures != 0; } // any thread

    struct Counts {
        std::uint64_t takenIn = 0, posted = 0, dropped = 0; // dropped by the rate limit
        std::uint64_t delivered = 0, queued = 0, resent = 0, abandoned = 0;
        std::uint64_t waitedMost = 0;   // events, at one time
        std::uint64_t disconnected = 0; // trace clients that did not read
    };
    const Counts &Total() const { return mTotal; }

private:
    struct Account {
        std::int64_t underway = 0; // posted, but neither delivered nor waiting
        Serial last = UINT64_MAX;  // posted; none of those from state
    };

    void TakeLine(const std::string &line);
    void TakeIn(std::size_t agent, Serial serial);
    void TakePosted(const std::string &type);
    std::optional<Serial> Settle(const std::string &type);
    ProducerLife *Sent(Serial serial);
    void PassOver(Serial &next, std::size_t agent, Serial end) const;
    Account &Book(const std::string &type, int underway, std::uint64_t &total);
    void Fail(const std::string &what);

    const Traffic &mTraffic;
    std::mutex mMutex; // mLives
    std::deque<ProducerLife> mLives;
    std::vector<std::optional<Serial>> mOwed; // by each agent: an event, or a line that it was dropped
    std::map<std::string, Account> mAccounts; // by event type
    std::map<Serial, bool> mUnderway;         // tagged events that were posted and have not come: queued?
    Counts mTotal;
    std::atomic<int> mFailures = 0;
};

#endif
