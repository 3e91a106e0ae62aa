// Makes rows out of the journal: joins each fate with its observation, each event with its causes.
//
// What has been heard is gathered in a batch; Flush writes it. Until then a row is made complete in memory:
// most observations have their fate before they are written, and are written once.
#ifndef RECORDER_KEEPER_H
#define RECORDER_KEEPER_H

#include "journalEntry.h"
#include "knowledge.h"
#include "store.h"

#include <deque>
#include <map>
#include <string>

class Keeper {
public:
    // Both must outlive the keeper.
    Keeper(Store *store, const Knowledge *knowledge);

    void Hear(const JournalEntry &entry);

    // The stream, or the wait for one, has ended, for this reason unless its last entry has told another.
    void Ended(CoverageEnd why);

    // Nothing comes, as no daemon is there; now is the wall clock's, for one that has heard nothing yet.
    void NoDaemon(std::uint64_t elapsed, std::uint64_t now);

    // A change of the inventory, or an entry that is there at the start; elapsed as below.
    void Inventory(const std::string &path, const std::string &value, int change, std::uint64_t elapsed);

    // Writes what has been heard; elapsed is how long ago the last entry came, in microseconds: so far
    // nothing was missed. Throws DatabaseError, and keeps the batch.
    void Flush(std::uint64_t elapsed);

    size_t Waiting() const { return mBatch.Size(); }
    std::uint64_t Now() const { return mTime; } // the daemon's time of the last entry

private:
    void On(const JournalUnknown &) {}
    void On(const JournalHello &hello);
    void On(const JournalBegin &begin);
    void On(const JournalIn &in);
    void On(const JournalDropped &dropped);
    void On(const JournalFateEntry &fate);
    void On(const JournalOutcomeEntry &outcome);
    void On(const JournalOut &out);
    void On(const JournalDeliveryEntry &delivery);
    void On(const JournalLost &lost);
    void On(const JournalGap &gap);
    void On(const JournalEnd &end);

    // An observation that is with an agent and has no fate yet.
    struct Pending {
        std::uint64_t count = 0;
        std::int64_t key = 0;
        std::uint64_t time = 0;
    };
    struct Agent {
        std::string text;
        std::int64_t name = 0;
        std::deque<Pending> pending; // by ascending count
    };

    void NewCoverage(std::int64_t run, std::uint64_t time);
    void SetFate(std::uint16_t agent, const Pending &pending, JournalFate fate, std::string_view text);
    void SetEvent(std::int64_t observation, std::uint64_t event);
    void KeepProblem(const EventRow &row, const EventRecord &event);
    void Receiver(JournalDelivery state);
    ObservationRow *InBatch(std::int64_t key);
    std::int64_t KeyOfOrigin(const JournalOrigin &origin); // 0 when it is not known
    void Notice(std::string_view kind, std::string text, std::optional<std::uint64_t> count = {});

    Store *mStore;
    const Knowledge *mKnowledge;
    Batch mBatch;
    std::uint64_t mTime = 0;
    std::int64_t mRun = 0;
    std::string mIdentity; // of the run
    CoverageRow mCoverage;
    bool mListening = false;
    bool mWaiting = false; // for a daemon
    std::map<std::uint16_t, Agent> mAgents;
    std::map<std::int64_t, std::int64_t> mGathered; // origin to key, of this batch
    std::map<std::int64_t, size_t> mEventRows;      // key to index, of this batch
    bool mReceiverAway = false;
    std::uint64_t mEventsWaited = 0;
};

// Run, agent and count in one number.
std::int64_t OriginKey(std::int64_t run, const JournalOrigin &origin);

#endif
