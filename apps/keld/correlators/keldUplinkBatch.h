// Port groups and DVPorts, a part of uplink tracking: batches of those that lost an uplink or got one
// back, NIC by NIC, and what was reported lost. All of it runs on the Net agent's thread.
#ifndef KELD_UPLINKBATCH_H
#define KELD_UPLINKBATCH_H

#include "keldFate.h"
#include "keldTranslation.h"

#include <string>

// ---- What is posted of a batch --------------------------------------------------------------------

namespace KeldUplink {

// Restored clears are posted only when nothing of their kind is lost any more, on any NIC, neither port
// groups nor DVPorts: each ends every such loss of both. A degraded redundancy ends with the same NIC's.
inline constexpr KeldPairing kEndsConnectivityLost{
    .clears = "nox.problem.net.connectivity.lost, nox.problem.net.dvport.connectivity.lost"};
inline constexpr KeldPairing kEndsRedundancyLost{
    .clears = "nox.problem.net.redundancy.lost, nox.problem.net.dvport.redundancy.lost"};

// clang-format off
inline constexpr EventText kConnectivityLost(
    "@&!*@*@(nox.problem.net.connectivity.lost)Lost network connectivity on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, *nic, portGroups");
inline constexpr EventText kRedundancyLost(
    "@&!*@*@(nox.problem.net.redundancy.lost)Lost uplink redundancy on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, *nic, portGroups");
inline constexpr EventText kRedundancyDegraded(
    "@&!*@*@(nox.problem.net.redundancy.degraded)Uplink redundancy degraded on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, *nic, portGroups", {.on = "nic", .clearedBy = "nox.clear.net.redundancy.restored"});
inline constexpr EventText kDvPortConnectivityLost(
    "@&!*@*@(nox.problem.net.dvport.connectivity.lost)Lost network connectivity on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, *nic");
inline constexpr EventText kDvPortRedundancyLost(
    "@&!*@*@(nox.problem.net.dvport.redundancy.lost)Lost uplink redundancy on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, *nic");
inline constexpr EventText kDvPortRedundancyDegraded(
    "@&!*@*@(nox.problem.net.dvport.redundancy.degraded)Uplink redundancy degraded on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, *nic", {.on = "nic", .clearedBy = "nox.clear.net.dvport.redundancy.restored"});
inline constexpr EventText kConnectivityRestored(
    "@&!*@*@(nox.clear.net.connectivity.restored)Network connectivity restored on virtual switch %s, portgroups: %s. Physical NIC %s is up",
    "switch, portGroups, *nic", kEndsConnectivityLost);
inline constexpr EventText kRedundancyRestored(
    "@&!*@*@(nox.clear.net.redundancy.restored)Uplink redundancy restored on virtual switch %s, portgroups: %s. Physical NIC %s is up",
    "switch, portGroups, *nic", kEndsRedundancyLost);
inline constexpr EventText kDvPortConnectivityRestored(
    "@&!*@*@(nox.clear.net.dvport.connectivity.restored)Network connectivity restored on DVPorts: %s. Physical NIC %s is up",
    "dvPorts, *nic", kEndsConnectivityLost);
// KEPT: "is up recently", here alone; receivers match on this text.
inline constexpr EventText kDvPortRedundancyRestored(
    "@&!*@*@(nox.clear.net.dvport.redundancy.restored)Uplink redundancy restored on DVPorts: %s. Physical NIC %s is up recently",
    "dvPorts, *nic", kEndsRedundancyLost);
// clang-format on

} // namespace KeldUplink

// ---- Batches --------------------------------------------------------------------------------------

// Those of one kind and direction, at most one for each NIC.
struct UplinkBatches;
extern UplinkBatches &pgDownBatches, &pgUpBatches, &dvPortDownBatches, &dvPortUpBatches;

bool HasBatch(const UplinkBatches &batches, const std::string &nic);

// Adds a port group, or a DVPort ("switch/port"), to the NIC's batch, and opens that where there is none,
// for the present observation. The count is of uplinks that are left, or up again; 2 stands for several.
// Gives how many the batch holds.
std::size_t AddToBatch(UplinkBatches &batches, const std::string &nic, const std::string &item,
                       std::int32_t count);

// Posts what the NIC's batch tells, and forgets it; nothing without a batch. What is not posted has its
// outcome said.
//
// KEPT: a batch whose virtual switch cannot be found is neither posted nor forgotten: later transitions of
// the NIC join it and are not reported. The NIC's link states, which it held back, carry the news from
// here on; dropping the batch would report both.
void ReportBatch(UplinkBatches &batches, const std::string &nic);

// Says why the NIC's batch, if there is one, is not reported; Drop forgets it.
void HoldBatch(const UplinkBatches &batches, const std::string &nic, const char *why);
void DropBatch(UplinkBatches &batches, const std::string &nic, const char *why);

#endif
