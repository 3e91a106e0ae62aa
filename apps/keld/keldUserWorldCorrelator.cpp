#include "keldUserWorldCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldUserWorldDomain{
    .name = "UserWorld", .domains = {"uw"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartUW() { KeldDomainRun(keldUserWorldDomain); }
