#include "keldCpuCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldCpuDomain{
    .name = "Cpu", .domains = {"cpu"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartCpu() { KeldDomainRun(keldCpuDomain); }
