// Network.
//
// Arrives    uplink transitions, link states and watchdog timeouts (keldUplink.cpp); and what LACP, the
//            firewall, port sets, fences, migration networks and others of the network stack report.
// Remembers  nothing beside uplink tracking.
// Posts      one event each; for a fence that could not be set, the one that gives the reason.
// Time       none beside uplink tracking, whose wake pipe this agent polls.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldUplink.h"

namespace {

// clang-format off
constexpr Translation kRows[] = {
    {"kel.net.portset.unsupported.psclass", Args("%p", "*portsetClass"),
     "@&!*@*@(nox.problem.net.portset.unsupported.psclass)%s is not a Kaltor supported portset class, the relevant module must be unloaded."},
    {"kel.net.lacp.lag.transition.up", Args("%p %p", "*lag, switch"),
     "@&!*@*@(nox.clear.net.lacp.lag.transition.up)LAG %s on QSW %s is up.",
     {.pairing = {.clears = "nox.problem.net.lacp.lag.transition.down", .on = "lag, switch"}}},
    {"kel.net.lacp.lag.transition.down", Args("%p %p", "*lag, switch"),
     "@&!*@*@(nox.problem.net.lacp.lag.transition.down)LAG %s on QSW %s is down."},
    // KEPT: no "uplink" in the type ID, and ".2" behind it; receivers subscribe to that name.
    {"kel.net.lacp.uplink.peer.noresponse", Args("%p", "*switch"),
     "@&!*@*@(nox.problem.net.lacp.peer.noresponse.2)No peer response on QSW %s"},
    {"kel.net.lacp.uplink.disconnected", Args("%p %p", "*uplink, switch"),
     "@&!*@*@(nox.problem.net.lacp.uplink.disconnected)uplink %s on QSW %s got disconnected"},
    {"kel.net.lacp.uplink.connected", Args("%p %p", "*uplink, switch"),
     "@&!*@*@(nox.audit.net.lacp.uplink.connected)uplink %s on QSW %s got connected"},
    {"kel.net.lacp.uplink.unblocked", Args("%p %p", "*uplink, switch"),
     "@&!*@*@(nox.clear.net.lacp.uplink.unblocked)uplink %s on QSW %s is unblocked",
     {.pairing = {.clears = "nox.problem.net.lacp.uplink.blocked", .on = "uplink"}}},
    {"kel.net.lacp.uplink.blocked", Args("%p %p", "*uplink, switch"),
     "@&!*@*@(nox.problem.net.lacp.uplink.blocked)uplink %s on QSW %s is blocked"},
    // The switch comes first in these two.
    {"kel.net.lacp.uplink.fail.duplex", Args("%p %p", "switch, *uplink"),
     "@&!*@*@(nox.problem.net.lacp.uplink.fail.duplex)Duplex mode across all uplink ports must be full, QSW %s uplink %s has different mode"},
    {"kel.net.lacp.uplink.fail.speed", Args("%p %p", "switch, *uplink"),
     "@&!*@*@(nox.problem.net.lacp.uplink.fail.speed)Speed across all uplink ports must be same, QSW %s uplink %s has different speed"},
    {"kel.net.lacp.uplink.transition.up", Args("%p %p", "*uplink, switch"),
     "@&!*@*@(nox.clear.net.lacp.uplink.transition.up)uplink %s on QSW %s is moved into link aggregation group",
     {.pairing = {.clears = "nox.problem.net.lacp.uplink.transition.down", .on = "uplink"}}},
    {"kel.net.lacp.uplink.transition.down", Args("%p %p", "*uplink, switch"),
     "@&!*@*@(nox.problem.net.lacp.uplink.transition.down)uplink %s on QSW %s is moved out of link aggregation group."},
    {"kel.net.lacp.uplink.inactive", Args("%p", "*switch"),
     "@&!*@*@(nox.problem.net.lacp.uplink.inactive)All uplinks on QSW %s must be active for LACP"},
    {"kel.net.lacp.policy.linkstatus", Args("%p", "*switch"),
     "@&!*@*@(nox.problem.net.lacp.policy.linkstatus)Current teaming policy for QSW %s is incompatible, supported link failover detection is link status only."},
    {"kel.net.lacp.policy.incompatible", Args("%p", "*switch"),
     "@&!*@*@(nox.problem.net.lacp.policy.incompatible)Current teaming policy for QSW: %s is incompatible, supported is IP hash only"},
    {"kel.net.lacp.disable", Args("%p", "*switch"),
     "@&!*@*@(nox.audit.net.lacp.disable)LACP for QSW %s is disabled"},
    {"kel.net.lacp.enable", Args("%p", "*switch"),
     "@&!*@*@(nox.audit.net.lacp.enable)LACP for QSW %s is enabled"},
    {"kel.net.heap.belowthreshold", Args("%p %d", "*heap, percentFree"),
     "@&!*@*@(nox.problem.net.heap.belowthreshold)%s free size dropped below %d percent."},
    {"kel.net.portset.port.vlan.invalidid", Args("%p %d", "*port, vlanId"),
     "@&!*@*@(nox.problem.net.portset.port.vlan.invalidid)%s VLANID %d is invalid. VLAN ID has to be between 0 and 4095."},
    {"kel.net.migrate.unsupported.latency", Args("%u %p %p", "latencyMilliseconds, *host, otherHost"),
     "@&!*@*@(nox.problem.net.migrate.unsupported.latency)NOX has detected %ums round-trip Skate network latency between host %s and %s.  High latency Skate networks are only supported if both NOX hosts have been configured for Skate latency tolerance."},
    {"kel.net.gateway.set.failed", Indexed("%p", "*gateway"),
     "@&!*@*@(nox.problem.net.gateway.set.failed)Cannot connect to the specified gateway %s. Failed to set it."},
    {"kel.net.portset.port.connect.fail", Indexed("%p %p %p", "*hardwareAddress, dvPort, switch"),
     "@&!*@*@(nox.problem.net.proxyswitch.port.unavailable)Virtual NIC with hardware address %s failed to connect to distributed virtual port %s on switch %s. No more ports available on the host proxy switch"},
    {"kel.net.firewall.enabled", Indexed("%p", "*port"),
     "@&!*@*@(nox.audit.net.firewall.enabled)Firewall has been enabled for port %s"},
    {"kel.net.firewall.disabled", Args(""),
     "@&!*@*@(nox.audit.net.firewall.disabled)Firewall has been disabled."},
    {"kel.net.knxnic.ip.duplicate", Indexed("%p %p %p", "ipAddress, *interface, owner"),
     "@&!*@*@(nox.problem.net.knxnic.ip.duplicate)Duplicate IP address detected for %s on interface %s, current owner being %s."},
    {"kel.net.migrate.bindtoknx.failed", Indexed("%p", "*knxnic"),
     "@&!*@*@(nox.problem.net.migrate.bindtoknx)The NOX advanced config option /Migrate/Knxnic is set to an invalid knxnic: '%s'.  /Migrate/Knxnic specifies a knxnic that Skate binds to for improved performance.  Please update the config option with a valid knxnic or, if you don't want Skate to bind to a specific knxnic, remove the invalid knxnic and leave the option blank."},
    {"kel.net.portset.port.full", Args("%p %d", "*portset, portsMax"),
     "@&!*@*@(nox.problem.net.portset.port.full)Portset %s has reached the maximum number of ports (%d). Cannot apply for any more free ports."},
    {"kel.net.firewall.port.hooked", Indexed("%p", "*port"),
     "@&!*@*@(nox.audit.net.firewall.port.hooked)Port %s is now protected by Firewall."},
    {"kel.net.firewall.port.hookfailed", Indexed("%p", "*port"),
     "@&!*@*@(nox.problem.net.firewall.port.hookfailed)Adding port %s to Firewall failed."},
    {"kel.net.firewall.port.removed", Indexed("%p", "*port"),
     "@&!*@*@(nox.audit.net.firewall.port.removed)Port %s is not protected with Firewall now."},
    {"kel.net.firewall.config.changed", Args("%p %p", "operation, *ruleSet"),
     "@&!*@*@(nox.audit.net.firewall.config.changed)Firewall configuration has changed. Operation '%s' for rule set %s succeeded."},
    {"kel.net.firewall.config.failed", Args("%p %p", "operation, *ruleSet"),
     "@&!*@*@(nox.problem.net.firewall.config.failed)Firewall configuration operation '%s' failed. The changes were not applied to rule set %s."},
    {"kel.net.uplink.mtu.failed", Indexed("%d %p", "mtu, *uplink"),
     "@&!*@*@(nox.problem.net.uplink.mtu.failed)Kernix failed to set the MTU value %d on the uplink %s."},
    {"kel.net.e1000.tso6.notsupported", Indexed("%p", "*virtualMachine"),
     "@&!*@*@(nox.problem.net.e1000.tso6.notsupported)Guest-initiated IPv6 TCP Segmentation Offload (TSO) packets ignored. Manually disable TSO inside the guest operating system in Virtual Machine %s, or use a different virtual adapter."},
};

constexpr EventText kFenceBadId(
    "@&!*@*@(nox.problem.net.fence.port.badfenceid)Kernix fails to set fenceId %d on distributed virtual port %s on switch %s, reason: invalid fenceId",
    "fenceId, *dvPort, switch");
constexpr EventText kFenceSwitchUnavailable(
    "@&!*@*@(nox.problem.net.fence.switch.unavailable)Kernix fails to set fenceId %d on distributed virtual port %s on switch %s, reason: dvSwitch fence property is not set",
    "fenceId, *dvPort, switch");
constexpr EventText kFenceResourceLimited(
    "@&!*@*@(nox.problem.net.fence.resource.limited)Kernix fails to set fenceId %d on distributed virtual port %s on switch %s, reason: maximum number of fence networks or ports have been reached",
    "fenceId, *dvPort, switch");
// clang-format on
static_assert(DistinctUnder(kRows, "kel.net."), "a row stands twice, or outside its domain");

// What the kernel gives as the reason.
constexpr std::int32_t kStatusInvalidFenceId = 0xbad0007;
constexpr std::int32_t kStatusNoFenceProperty = 0xbad0002;

constexpr KeldArguments kFence = Args("%p %p %d %d", "*dvPort, switch, status, fenceId");

void KeldNetCorrelatorFenceFailed(Kel *kel)
{
    const char *dvPort = nullptr, *dvSwitch = nullptr;
    std::int32_t status = 0, fenceId = 0;
    if (KeldRead<kFence>(kel, &dvPort, &dvSwitch, &status, &fenceId) != 0) return;
    if (status == kStatusInvalidFenceId)
        KeldPost<kFenceBadId>(fenceId, dvPort, dvSwitch);
    else if (status == kStatusNoFenceProperty)
        KeldPost<kFenceSwitchUnavailable>(fenceId, dvPort, dvSwitch);
    else
        KeldPost<kFenceResourceLimited>(fenceId, dvPort, dvSwitch);
}

// Uplink tracking's rows, and one more. They are constants of another file: complete before this runs.
const std::vector<KeldObservation> &kObservations = *[] {
    auto *rows =
        new std::vector<KeldObservation>(keldUplinkObservations.begin(), keldUplinkObservations.end());
    rows->push_back({"kel.net.fence.port.fail",
                     kFence,
                     KeldNetCorrelatorFenceFailed,
                     "posted as the event that gives the status as a reason",
                     {&kFenceBadId, &kFenceSwitchUnavailable, &kFenceResourceLimited}});
    return rows;
}();

} // namespace

const KeldDomain keldNetDomain{
    .name = "Net",
    .domains = {"net"},
    .translations = KeldTranslations<kRows>,
    .observations = kObservations,
};

void KeldCorrelator_StartNet()
{
    const int wakeFd = KeldUplinkInit();
    if (wakeFd < 0) return; // without an alarm there is nothing to run for; the daemon goes on
    KeldCorrelatorRunWithFds(keldNetDomain.name, keldNetDomain.domains[0], keldNetDomain.defaultHandler,
                             KeldDomainTable(keldNetDomain), ProcessUplinkTimeouts, &wakeFd, 1);
}
