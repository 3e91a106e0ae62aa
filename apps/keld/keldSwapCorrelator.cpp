#include "keldSwapCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldSwapDomain{
    .name = "SWAP", .domains = {"swap"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartSwap() { KeldDomainRun(keldSwapDomain); }
