// SCSI devices and the paths to them.
#ifndef KELD_SCSICORRELATOR_H
#define KELD_SCSICORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldScsiDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartScsi();

#endif
