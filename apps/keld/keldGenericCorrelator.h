// What add-on components report.
#ifndef KELD_GENERICCORRELATOR_H
#define KELD_GENERICCORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldGenericDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartGeneric();

#endif
