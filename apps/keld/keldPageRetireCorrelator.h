// Host memory pages that are retired, and virtual machines that keep using bad ones.
#ifndef KELD_PAGERETIRECORRELATOR_H
#define KELD_PAGERETIRECORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldPageRetireDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartPageRetire();

#endif
