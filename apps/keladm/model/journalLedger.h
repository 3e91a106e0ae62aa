// The books of one listener to the journal: every observation ends in a fate in each agent that got it or
// is lost, every event is delivered, for good or not, or waits.
#ifndef KELADM_JOURNALLEDGER_H
#define KELADM_JOURNALLEDGER_H

#include "journalEntry.h"

#include <cstdint>
#include <map>
#include <string>
#include <vector>

class JournalLedger {
public:
    // One entry after the other, from the hello on.
    void Take(const JournalEntry &entry);

    // Entries that contradict the books, in their order: none in a journal that is right. At most ten
    // lines.
    const std::vector<std::string> &Faults() const { return mFaults; }

    // What has not ended yet, one line each: nothing at a quiet moment, but for events that wait, and at
    // the end.
    std::vector<std::string> Open() const;

    struct Sums { // of what was told from the first begin on
        std::uint64_t observations = 0, unwanted = 0, handed = 0, fates = 0, lost = 0;
        std::uint64_t events = 0, delivered = 0, waiting = 0, failed = 0; // failed: for good
        std::uint64_t dropped = 0, missing = 0; // what channels refused; entries in gaps
    };
    const Sums &Total() const { return mTotal; }
    bool HasEnded() const { return mEnded; }

private:
    struct Agent {
        std::string name;
        std::uint64_t base = 0; // what came before is not in the books
        std::uint64_t told = 0; // the last that went to it
        std::uint64_t done = 0; // the last that has a fate or is lost
    };
    enum class Event { Out, Waiting };

    void Follow(const JournalUnknown &) {}
    void Follow(const JournalHello &hello);
    void Follow(const JournalBegin &begin);
    void Follow(const JournalIn &in);
    void Follow(const JournalDropped &) { ++mTotal.dropped; }
    void Follow(const JournalFateEntry &fate);
    void Follow(const JournalOutcomeEntry &) {}
    void Follow(const JournalOut &out);
    void Follow(const JournalDeliveryEntry &delivery);
    void Follow(const JournalLost &lost);
    void Follow(const JournalGap &gap);
    void Follow(const JournalEnd &end);
    void Fault(std::string what);

    std::uint64_t mNext = 0;     // the next entry's number
    bool mBegun = false;         // behind a begin, without a gap since
    std::uint64_t mObserved = 0; // the last observation's number
    std::uint64_t mEventsBefore = 0;
    std::map<std::uint16_t, Agent> mAgents;
    std::map<std::uint64_t, Event> mEvents; // that are not done with
    std::vector<std::string> mFaults;
    Sums mTotal;
    bool mEnded = false;
};

#endif
