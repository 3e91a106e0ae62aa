// NVDIMM health, TPM, BMC and interrupt routing.
#ifndef KELD_HARDWARECORRELATOR_H
#define KELD_HARDWARECORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldHardwareDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartHardware();

#endif
