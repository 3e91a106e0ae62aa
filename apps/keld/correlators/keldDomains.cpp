#include "keldDomains.h"

#include "keldDomain.h"

// Domains of which nothing is known yet. Their agents are there so that each domain has its place and its
// subscription.
const KeldDomain keldCpuDomain{.name = "Cpu", .domains = {"cpu"}};
void KeldCorrelator_StartCpu() { KeldDomainRun(keldCpuDomain); }

const KeldDomain keldZornDomain{.name = "Zorn", .domains = {"zorn"}};
void KeldCorrelator_StartZorn() { KeldDomainRun(keldZornDomain); }

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
