// A listener of the journal that follows what becomes of observations.
#ifndef KELADM_JOURNALLISTENER_H
#define KELADM_JOURNALLISTENER_H

#include "console.h"
#include "journalEntry.h"

#include <string>
#include <vector>

class JournalListener {
public:
    // Connects, and waits for the hello: whatever is observed from then on is told. Throws Failure.
    explicit JournalListener(Clock::time_point until);

    // What has come, without waiting, in its order: fates, "held back: within 90 s of the last one", and
    // outcomes, "then posted". Throws Failure when it is no journal, or has ended.
    std::vector<std::string> TakeFates();

    // For a poll: readable when there is something to take.
    pollfd Watch() const { return {mJournal.Get(), POLLIN, 0}; }

private:
    UniqueFd mJournal = ConnectToJournal();
    JournalStream mStream;
};

#endif
