// Distributed storage.
//
// Arrives    what the distributed-storage service observes of its cluster.
// Remembers  nothing.
// Posts      nothing yet: the agent is there so that the domain has its place and its subscription.
// Time       none.

#include "keldZornCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldZornDomain{
    .name = "Zorn", .domains = {"zorn"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartZorn() { KeldDomainRun(keldZornDomain); }
