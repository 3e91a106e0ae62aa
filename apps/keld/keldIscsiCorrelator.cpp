#include "keldIscsiCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldIscsiDomain{
    .name = "iscsi", .domains = {"iscsi"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartiScsi() { KeldDomainRun(keldIscsiDomain); }
