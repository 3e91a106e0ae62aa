#include "keldZornCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldZornDomain{
    .name = "Zorn", .domains = {"zorn"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartZorn() { KeldDomainRun(keldZornDomain); }
