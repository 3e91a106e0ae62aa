#include "keldQuillfsCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldQuillfsDomain{.name = "Quillfs",
                                   .domains = {"quillfs"},
                                   .defaultHandler = KeldCorrelatorIgnore,
                                   .otherwise = "ignored"};

void KeldCorrelator_StartQuillfs() { KeldDomainRun(keldQuillfsDomain); }
