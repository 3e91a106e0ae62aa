#include "keldVfatCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldVfatDomain{
    .name = "Vfat", .domains = {"vfat"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartVfat() { KeldDomainRun(keldVfatDomain); }
