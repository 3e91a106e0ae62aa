// The system clock.
#ifndef KELD_CLOCKCORRELATOR_H
#define KELD_CLOCKCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldClockDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartClock();

#endif
