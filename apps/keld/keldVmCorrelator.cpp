#include "keldVmCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldVmDomain{
    .name = "VM", .domains = {"vm"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartVM() { KeldDomainRun(keldVmDomain); }
