#include "keldDsfsCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldDsfsDomain{
    .name = "dsfs", .domains = {"dsfs"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartDsfs() { KeldDomainRun(keldDsfsDomain); }
