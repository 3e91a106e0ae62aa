// Virtual machines that the kernel had to power off.
#ifndef KELD_VMCORRELATOR_H
#define KELD_VMCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldVmDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartVM();

#endif
