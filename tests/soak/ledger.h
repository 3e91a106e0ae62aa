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
#include <eventRecord.h>
#include <mutex>
#include <unordered_map>

// One producer from its first observation to its last. It may be cut short.
struct ProducerLife {
    std::vector<std::uint16_t> script;
    std::atomic<std::uint32_t> sent = 0; // counted before it is sent
    std::atomic<bool> ended = false;

    // The ledger's thread only: the next number for each agent, the last one delivered from each.
    std::array<std::uint32_t, kAgents> next{};
    std::array<std::int64_t, kAgents> delivered{};
    bool complete = false;

    explicit ProducerLife(std::vector<std::uint16_t> what) : script(std::move(what)) { delivered.fill(-1); }
};

class Ledger {
public:
    explicit Ledger(const Traffic &traffic);

    // Any thread, before the first observation is sent.
    std::shared_ptr<ProducerLife> Begin(std::uint32_t producer);

    // One thread. Whole lines; an event only after the lines that were written before it came.
    void TakeLog(std::string_view lines);
    void TakeEvent(const EventRecord &event);

    // True when nothing is owed any more: all that was sent was taken in, all that was posted has come,
    // waits or was abandoned. Any thread may ask.
    bool IsEven() const { return mEven; }
    std::uint64_t Settled() const { return mSettled; } // how often that was looked at
    void Settle();

    bool HasFailed() const { return mFailures != 0; }
    std::string Summary() const;
    std::string Unsettled() const; // what is owed, for a failure message

    std::uint64_t Disconnected() const { return mDisconnected; } // trace clients that did not read
    std::uint64_t TakenIn() const { return mTakenIn; }
    std::uint64_t Posted() const { return mPosted; }
    std::uint64_t Dropped() const { return mDropped; }

private:
    struct Owed {
        bool pending = false;
        Serial serial;
        std::uint16_t kind = 0;
    };
    struct TypeAccount {
        std::size_t agent = 0;
        bool hasState = false;
        std::optional<std::size_t> tag;
        std::uint64_t posted = 0, delivered = 0, queued = 0, resent = 0, abandoned = 0;
        Serial last; // posted
    };
    struct OnItsWay {
        std::uint16_t kind = 0;
        bool queued = false;
    };

    void TakeLine(std::string_view line);
    void TakeObservation(std::size_t agent, Serial serial);
    void TakeUnheard(std::string_view id);
    void TakePosted(std::size_t agent, std::string_view type);
    void TakeDropped(std::string_view type);
    void Advance(ProducerLife &life, std::size_t agent, Serial serial);
    ProducerLife *Life(std::uint32_t producer);
    ProducerLife *Sent(Serial serial); // null, with a failure, when it was not, or is long done with
    TypeAccount *Account(std::string_view type);
    void Fail(const std::string &what);

    const Traffic &mTraffic;
    mutable std::mutex mMutex; // mLives
    std::map<std::uint32_t, std::shared_ptr<ProducerLife>> mLives;

    std::unordered_map<std::string_view, std::size_t> mAgents; // by name
    std::array<std::string, kAgents> mNames;
    std::array<Owed, kAgents> mOwed{};
    std::map<std::string, TypeAccount, std::less<>> mAccounts;
    std::map<Serial, OnItsWay> mOutstanding; // tagged events that have been posted and not come
    std::atomic<std::uint64_t> mTakenIn = 0, mPosted = 0, mDropped = 0, mDisconnected = 0;
    std::atomic<int> mFailures = 0;
    std::atomic<bool> mEven = false;
    std::atomic<std::uint64_t> mSettled = 0;
};

#endif
