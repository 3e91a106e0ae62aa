#include "keldClockCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldClockDomain{
    .name = "Clock", .domains = {"clock"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartClock() { KeldDomainRun(keldClockDomain); }
