// Network: uplink redundancy and connectivity, and one event each for the rest.
#ifndef KELD_NETCORRELATOR_H
#define KELD_NETCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldNetDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartNet();

#endif
