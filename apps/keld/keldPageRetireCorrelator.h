// Host memory pages that are retired, and virtual machines that keep using bad ones.
#ifndef KELD_PAGERETIRECORRELATOR_H
#define KELD_PAGERETIRECORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldPageRetireDomain;

// The agent's entry: reads the settings and runs; returns when the agent ends.
void KeldCorrelator_StartPageRetire();

// Reads the threshold of selected pages and its interval, once, before the first observation. Panics
// when the kernel does not tell.
void KeldPageRetireReadSettings();

#endif
