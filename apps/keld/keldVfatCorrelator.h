// Full VFAT file systems.
#ifndef KELD_VFATCORRELATOR_H
#define KELD_VFATCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldVfatDomain;

// The link to the host's scratch partition: "/scratch". Changed, if at all, before the agent starts.
extern const char *keldVfatScratchLink;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartVfat();

#endif
