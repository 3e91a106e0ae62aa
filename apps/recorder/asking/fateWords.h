// Fates and deliveries in sentences: what became of it, because of what, and what would have to be
// different.
#ifndef RECORDER_FATEWORDS_H
#define RECORDER_FATEWORDS_H

#include "rows.h"

struct Explanation {
    std::string because;   // one sentence
    std::string different; // what would have to be different; empty when nothing
};

Explanation ExplainFate(const RecordedFate &fate);
// daemonGone: a later run of the daemon is recorded than the event's.
Explanation ExplainDelivery(const RecordedEvent &event, bool daemonGone);
std::string OutcomeSentence(int outcome, const std::string &text); // JournalOutcome

#endif
