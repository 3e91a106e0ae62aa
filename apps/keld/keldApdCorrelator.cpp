#include "keldApdCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldApdDomain{.name = "APD",
                               .domains = {"storage.apd"},
                               .defaultHandler = KeldCorrelatorIgnore,
                               .otherwise = "ignored"};

void KeldCorrelator_StartAPD() { KeldDomainRun(keldApdDomain); }
