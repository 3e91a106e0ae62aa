#include "keldDomains.h"

#include "keldTranslation.h"

#include "keldApdCorrelator.h"
#include "keldClockCorrelator.h"
#include "keldCpuCorrelator.h"
#include "keldDsfsCorrelator.h"
#include "keldGenericCorrelator.h"
#include "keldHardwareCorrelator.h"
#include "keldIscsiCorrelator.h"
#include "keldMigrateCorrelator.h"
#include "keldNetCorrelator.h"
#include "keldPageRetireCorrelator.h"
#include "keldQuillfsCorrelator.h"
#include "keldScsiCorrelator.h"
#include "keldSwapCorrelator.h"
#include "keldUserCorrelator.h"
#include "keldUserWorldCorrelator.h"
#include "keldVfatCorrelator.h"
#include "keldVmCorrelator.h"
#include "keldZornCorrelator.h"

// In the order in which their agents start.
const std::array<KeldCorrelatorEntry, 18> keldCorrelators{{
    {KeldCorrelator_StartNet, keldNetDomain},
    {KeldCorrelator_StartScsi, keldScsiDomain},
    {KeldCorrelator_StartAPD, keldApdDomain},
    {KeldCorrelator_StartiScsi, keldIscsiDomain},
    {KeldCorrelator_StartDsfs, keldDsfsDomain},
    {KeldCorrelator_StartUser, keldUserDomain},
    {KeldCorrelator_StartHardware, keldHardwareDomain},
    {KeldCorrelator_StartCpu, keldCpuDomain},
    {KeldCorrelator_StartUW, keldUserWorldDomain},
    {KeldCorrelator_StartSwap, keldSwapDomain},
    {KeldCorrelator_StartVM, keldVmDomain},
    {KeldCorrelator_StartGeneric, keldGenericDomain},
    {KeldCorrelator_StartMigrate, keldMigrateDomain},
    {KeldCorrelator_StartPageRetire, keldPageRetireDomain},
    {KeldCorrelator_StartQuillfs, keldQuillfsDomain},
    {KeldCorrelator_StartVfat, keldVfatDomain},
    {KeldCorrelator_StartClock, keldClockDomain},
    {KeldCorrelator_StartZorn, keldZornDomain},
}};
