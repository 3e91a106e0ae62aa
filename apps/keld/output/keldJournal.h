// The journal: what becomes of every observation and event, told while somebody listens.
#ifndef KELD_JOURNAL_H
#define KELD_JOURNAL_H

#include <atomic>

inline std::atomic<bool> keldJournalHeard{false};

// Whether somebody listens. Any thread.
inline bool KeldJournalHeard() { return keldJournalHeard.load(std::memory_order_relaxed); }

#endif
