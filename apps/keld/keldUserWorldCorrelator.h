// Crashes of user-space processes, and their security policy.
#ifndef KELD_USERWORLDCORRELATOR_H
#define KELD_USERWORLDCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldUserWorldDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartUW();

#endif
