// Distributed storage: received and ignored so far.
#ifndef KELD_ZORNCORRELATOR_H
#define KELD_ZORNCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldZornDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartZorn();

#endif
