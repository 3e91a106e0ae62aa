#include "keldPageRetireCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldPageRetireDomain{.name = "PageRetire",
                                      .domains = {"pageretire"},
                                      .defaultHandler = KeldCorrelatorIgnore,
                                      .otherwise = "ignored"};

void KeldCorrelator_StartPageRetire() { KeldDomainRun(keldPageRetireDomain); }
