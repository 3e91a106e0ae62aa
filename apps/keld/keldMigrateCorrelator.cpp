#include "keldMigrateCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldMigrateDomain{.name = "migrate",
                                   .domains = {"migrate"},
                                   .defaultHandler = KeldCorrelatorIgnore,
                                   .otherwise = "ignored"};

void KeldCorrelator_StartMigrate() { KeldDomainRun(keldMigrateDomain); }
