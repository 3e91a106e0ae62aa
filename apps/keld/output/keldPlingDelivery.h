// Taking events to the management agent: at once, or later from the retry list.
#ifndef KELD_PLING_DELIVERY_H
#define KELD_PLING_DELIVERY_H

#include "keldJournal.h"

#include <cstddef>
#include <cstdint>

// Registers the retry alarm. Main thread, once, before any agent starts.
void KeldPlingDeliveryInit();

// Sends one record over a connection of its own: 0, or -1. Any thread; blocks while the receiver is slow,
// but not once the daemon is leaving.
int KeldPlingSend(const void *record, std::size_t length);

// Puts a copy of the record on the retry list and arms the retry alarm. event is its number, tries how
// often it was sent. Any thread.
void KeldPlingQueue(std::uint64_t event, unsigned tries, const void *record, std::size_t length);

// How many events wait on the retry list. Any thread.
std::size_t KeldPlingWaiting();

// Tells the status file and the journal what has become of an event so far, after how many tries. Any
// thread.
void KeldPlingTellDelivery(std::uint64_t event, JournalDelivery state, unsigned tries);

// Tells the journal of the events that wait and will not be sent any more. Main thread, when no agent runs
// any more.
void KeldPlingTellLost();

#endif
