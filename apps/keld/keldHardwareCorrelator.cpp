#include "keldHardwareCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldHardwareDomain{.name = "Hardware",
                                    .domains = {"hardware"},
                                    .defaultHandler = KeldCorrelatorIgnore,
                                    .otherwise = "ignored"};

void KeldCorrelator_StartHardware() { KeldDomainRun(keldHardwareDomain); }
