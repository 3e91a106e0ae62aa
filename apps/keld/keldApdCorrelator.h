// All paths down.
#ifndef KELD_APDCORRELATOR_H
#define KELD_APDCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldApdDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartAPD();

#endif
