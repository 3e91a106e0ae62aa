// The software iSCSI initiator.
#ifndef KELD_ISCSICORRELATOR_H
#define KELD_ISCSICORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldIscsiDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartiScsi();

#endif
