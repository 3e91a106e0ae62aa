// The journal: what becomes of every observation and event, told to whoever listens at keld-journal.sock in
// the run directory. kltlibs/journalrecord.h has its layout.
//
// Nothing is rendered or kept while nobody listens. Nothing waits for a listener: what it is too slow for
// is a gap in its journal.
#ifndef KELD_JOURNAL_H
#define KELD_JOURNAL_H

#include <kltlibs/journalrecord.h>

#include <atomic>
#include <cstddef>
#include <memory>
#include <new>
#include <string>

// ---- What is told, from any thread --------------------------------------------------------------------

inline std::atomic<bool> keldJournalHeard{false};

// Whether somebody listens. Any thread; one relaxed load.
inline bool KeldJournalHeard() { return keldJournalHeard.load(std::memory_order_relaxed); }

// The calling thread's own entries that it has not handed over yet.
std::string &KeldJournalRoom();

// Gives the thread's entries the next numbers and the time, and hands them to the listeners.
void KeldJournalHandOver();

// Disconnects all listeners, when there is no memory for an entry: a gap that nobody is told of would be
// worse.
void KeldJournalDisconnect();

// Tells one entry, which make() gives, if somebody listens; but keeps it until the thread tells the next
// one or hands over. That must be soon, and before it waits for anything: three entries at once cost little
// more than one.
template <class Make> void KeldJournalTellWithNext(const Make &make)
try {
    if (KeldJournalHeard()) Journal_Append(&KeldJournalRoom(), 0, 0, make());
} catch (const std::bad_alloc &) {
    KeldJournalDisconnect();
}

// Tells one entry, which make() gives, if somebody listens:
//
//     KeldJournalTell([&] { return JournalGap{last}; });
//
// Any thread, also one that holds the stream lock or the retry list's.
template <class Make> void KeldJournalTell(const Make &make)
{
    if (!KeldJournalHeard()) return;
    KeldJournalTellWithNext(make);
    KeldJournalHandOver();
}

// True once for each listener that has joined or has missed something: a begin is due. Main thread.
bool KeldJournalBeginDue();

// Tells the begin, with the events that there were so far: none behind them has been told before it.
void KeldJournalTellBegin(JournalBegin begin);

// The number of an event that is being made, from 1 on; and how many there were so far. Any thread.
std::uint64_t KeldJournalNextEvent();
std::uint64_t KeldJournalEvents();

// What every hello says of the agents; a null name is empty. Any thread.
void KeldJournalAgentBegins(std::uint16_t number, std::shared_ptr<const std::string> name);
void KeldJournalAgentEnds(std::uint16_t number);

// ---- Its life, main thread ----------------------------------------------------------------------------

// Makes the socket, removing what lies there, and starts the thread that accepts listeners; it inherits the
// caller's blocked signals. 0 or an errno value. Once.
int KeldJournalOpen(const char *version);

// Tells the end, and gives listeners a fifth of a second to take it.
void KeldJournalEnd(JournalEnd end);

// Whether every listener's socket has all that was told. For whoever has to know when all is quiet. Any
// thread.
bool KeldJournalIsWritten();

#endif
