#include "keldScsiCorrelator.h"

#include "keldTranslation.h"

const KeldDomain keldScsiDomain{
    .name = "SCSI", .domains = {"scsi"}, .defaultHandler = KeldCorrelatorIgnore, .otherwise = "ignored"};

void KeldCorrelator_StartScsi() { KeldDomainRun(keldScsiDomain); }
