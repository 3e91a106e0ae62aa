// DSFS datastore volumes.
#ifndef KELD_DSFSCORRELATOR_H
#define KELD_DSFSCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldDsfsDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartDsfs();

#endif
