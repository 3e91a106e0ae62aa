#include "keldUserCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldUserDomain{.name = "UserLevel",
                                .domains = {"user"},
                                .defaultHandler = KeldCorrelatorIgnore,
                                .otherwise = "ignored"};

void KeldCorrelator_StartUser() { KeldDomainRun(keldUserDomain); }
