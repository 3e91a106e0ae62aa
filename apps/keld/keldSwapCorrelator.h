// System swap on a datastore that is permanently lost.
#ifndef KELD_SWAPCORRELATOR_H
#define KELD_SWAPCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldSwapDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartSwap();

#endif
