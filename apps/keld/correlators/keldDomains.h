// Every correlator's start function and rows: what the daemon starts, and what the catalogue lists.
//
// A start function is an agent's entry: it runs on the agent's own thread and returns when the agent ends.
#ifndef KELD_DOMAINS_H
#define KELD_DOMAINS_H

#include "keldAgent.h"

#include <array>

struct KeldDomain;

void KeldCorrelator_StartNet();
void KeldCorrelator_StartScsi();
void KeldCorrelator_StartAPD();
void KeldCorrelator_StartiScsi();
void KeldCorrelator_StartDsfs();
void KeldCorrelator_StartUser();
void KeldCorrelator_StartHardware();
void KeldCorrelator_StartCpu();
void KeldCorrelator_StartUW();
void KeldCorrelator_StartSwap();
void KeldCorrelator_StartVM();
void KeldCorrelator_StartGeneric();
void KeldCorrelator_StartMigrate();
void KeldCorrelator_StartPageRetire();
void KeldCorrelator_StartQuillfs();
void KeldCorrelator_StartVfat();
void KeldCorrelator_StartClock();
void KeldCorrelator_StartZorn();

extern const KeldDomain keldNetDomain, keldScsiDomain, keldApdDomain, keldIscsiDomain, keldDsfsDomain,
    keldUserDomain, keldHardwareDomain, keldCpuDomain, keldUserWorldDomain, keldSwapDomain, keldVmDomain,
    keldGenericDomain, keldMigrateDomain, keldPageRetireDomain, keldQuillfsDomain, keldVfatDomain,
    keldClockDomain, keldZornDomain;

struct KeldCorrelatorEntry {
    KeldAgentEntry start;
    const KeldDomain &domain;
};

// In the order in which their agents start.
extern const std::array<KeldCorrelatorEntry, 18> keldCorrelators;

// ---- Optional agents, which the shipped daemon never runs -----------------------------------------

// Writes whole domains to the diagnostic log.
void KeldLogger_Start();

// Checks the whole observation path against a scripted test producer. Writes its findings to standard
// output and ends the whole process with the number of failures as its exit status.
void KeldCorrelator_StartTest();
extern const KeldDomain keldTestDomain;

// ---- What tests set -------------------------------------------------------------------------------

// The link to the host's scratch partition: "/scratch". Changed, if at all, before its agent starts.
extern const char *keldVfatScratchLink;

// Reads the threshold of selected pages and its interval, once, before the first observation. Panics
// when the kernel does not tell.
void KeldPageRetireReadSettings();

#endif
