// Uplink tracking, a part of the network correlator. All of it runs on the Net agent's thread.
#ifndef KELD_UPLINK_H
#define KELD_UPLINK_H

#include "keldDomain.h"

#include <array>

// The seven observations that are tracked.
extern const std::array<KeldObservation, 7> keldUplinkObservations;

// Registers the wake-up alarm and makes the wake pipe, once. The pipe's read end, which stays open for
// the process's life: whenever it is readable, ProcessUplinkTimeouts has work. -1 when all alarms are
// taken. Panics when there can be no pipe.
int KeldUplinkInit();

// Reports every batch and link state whose time has come, and arms the alarm for the next.
void ProcessUplinkTimeouts();

#endif
