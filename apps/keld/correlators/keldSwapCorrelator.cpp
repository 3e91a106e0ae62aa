// System swap on a datastore that is permanently lost.
//
// Arrives    one observation: the kernel has removed the swap file, or could not.
// Remembers  nothing.
// Posts      a problem when swap stays where it is lost, or cannot be set up anew.
// Time       none.
//
// The events name the datastore; only the log line of a success names the path.

#include "keldDomains.h"

#include "keldDomain.h"

#include <knxctl/nodeAdmException.h>
#include <knxctl/swapInfo.h>

namespace {

// clang-format off
constexpr KeldArguments kRemovedArguments = ByMessage(
    "System swap at path %s was affected by the Permanent Device Loss of its datastore and was removed.", "*path");
constexpr KeldArguments kCannotRemoveArguments = ByMessage(
    "System swap at path %s is affected by the Permanent Device Loss of its datastore but cannot be removed.", "*path");

constexpr EventText kReconfigureFailed{
    "@&!*@*@(nox.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2)System swap on %s was affected by PDL. It was removed but the subsequent reconfiguration failed.",
    "*datastore"};
constexpr EventText kCannotRemove{
    "@&!*@*@(nox.problem.swap.systemSwap.isPDL.cannot.remove.2)System swap on %s is affected by PDL but cannot be removed.",
    "*datastore"};
// clang-format on

// KEPT: catches what the library documents and nothing else. What else it throws is a fault in it, and
// ends this agent with a line in the log; catching all would go on with swap half set up.
void HandleRemoved(Kel *kel)
{
    const char *path = nullptr;
    if (KeldRead<kRemovedArguments>(kel, &path) != 0) return;
    try {
        KnxCtl::System::SwapInfoImpl swap;
        swap.ReconfigureSysSwap(0);
        KeldLog("System swap at path %s was affected by the PDL of its datastore and was removed. "
                "System swap has been reconfigured.",
                path);
        KeldSay(KeldFate::Noted, "system swap was removed from %s and has been reconfigured", path);
    } catch (const NodeAdm::Lib::NodeAdmException &failure) {
        KeldPost<kReconfigureFailed>(KeldLookupDatastore(path).c_str());
        KeldLog("%s", failure.GetDetailedMessage().c_str());
    }
}

void HandleCannotRemove(Kel *kel)
{
    const char *path = nullptr;
    if (KeldRead<kCannotRemoveArguments>(kel, &path) != 0) return;
    KeldPost<kCannotRemove>(KeldLookupDatastore(path).c_str());
}

constexpr KeldObservation kObservations[] = {
    {"kel.swap.systemSwap.isPDL.removed",
     kRemovedArguments,
     HandleRemoved,
     "system swap is reconfigured; becomes a problem when that fails",
     {&kReconfigureFailed}},
    {"kel.swap.systemSwap.isPDL.cannot.remove",
     kCannotRemoveArguments,
     HandleCannotRemove,
     "becomes a problem that names the datastore",
     {&kCannotRemove}},
};

} // namespace

const KeldDomain keldSwapDomain{
    .name = "SWAP",
    .domains = {"swap"},
    .observations = kObservations,
};

void KeldCorrelator_StartSwap() { KeldDomainRun(keldSwapDomain); }
