// Live migration.
#ifndef KELD_MIGRATECORRELATOR_H
#define KELD_MIGRATECORRELATOR_H

struct KeldDomain;
extern const KeldDomain keldMigrateDomain;

// The agent's entry; returns when the agent ends.
void KeldCorrelator_StartMigrate();

#endif
