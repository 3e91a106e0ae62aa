// Processors: received and ignored so far.
#ifndef KELD_CPUCORRELATOR_H
#define KELD_CPUCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldCpuDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartCpu();

#endif
