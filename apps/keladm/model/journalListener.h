// A listener of the journal that follows what becomes of observations, and keeps its books.
#ifndef KELADM_JOURNALLISTENER_H
#define KELADM_JOURNALLISTENER_H

#include "console.h"
#include "journalLedger.h"

#include <string>
#include <vector>

class JournalListener {
public:
    // Connects, and waits for the hello: whatever is observed from then on is told. Throws Failure.
    explicit JournalListener(Clock::time_point until);

    // What has come, without waiting, in its order: fates, "held back: within 90 s of the last one", and
    // outcomes, "then posted". Throws Failure when it is no journal.
    std::vector<std::string> TakeFates();

    // Throws Failure when the books are wrong or do not balance, as they must at a quiet moment. After the
    // daemon's end, what is left has to be taken first.
    void CheckBooks() const;

    // For a poll: readable when there is something to take; nothing behind the end.
    pollfd Watch() const { return {mEnded ? -1 : mJournal.Get(), POLLIN, 0}; }
    bool HasEnded() const { return mLedger.HasEnded(); } // as it should

private:
    UniqueFd mJournal = ConnectToJournal();
    JournalStream mStream;
    JournalLedger mLedger;
    bool mEnded = false;
};

#endif
