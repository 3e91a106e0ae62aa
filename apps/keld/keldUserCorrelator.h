// What user-space services of the host report.
#ifndef KELD_USERCORRELATOR_H
#define KELD_USERCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldUserDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartUser();

#endif
