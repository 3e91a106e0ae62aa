// Full VFAT file systems.
#ifndef KELD_VFATCORRELATOR_H
#define KELD_VFATCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldVfatDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartVfat();

#endif
