// The in-memory root file system.
#ifndef KELD_QUILLFSCORRELATOR_H
#define KELD_QUILLFSCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldQuillfsDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartQuillfs();

#endif
