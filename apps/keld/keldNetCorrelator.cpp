#include "keldNetCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldNetDomain{
    .name = "Net", .domains = {"net"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartNet() { KeldDomainRun(keldNetDomain); }
