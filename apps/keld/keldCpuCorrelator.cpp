// Processors.
//
// Arrives    machine checks and what else the kernel observes of its processors.
// Remembers  nothing.
// Posts      nothing yet: the agent is there so that the domain has its place and its subscription.
// Time       none.

#include "keldCpuCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldCpuDomain{
    .name = "Cpu", .domains = {"cpu"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartCpu() { KeldDomainRun(keldCpuDomain); }
