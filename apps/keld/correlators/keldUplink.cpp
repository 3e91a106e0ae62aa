// Uplink tracking.
//
// Arrives    bursts: one transition per port group or DVPort of a NIC, a link state, a watchdog timeout.
// Remembers  per NIC: seven state bits, the waiting batches, link-downs of the last minute; across all
//            NICs: what was reported lost, and whose redundancy has come back meanwhile.
// Posts      connectivity and redundancy lost, degraded, restored; link states; watchdog reset; flapping.
// Time       2 s for transitions, 1 s for link states, 7 s for the watchdog; one alarm for all of it.
//
// The alarm handler, on the alarm thread, only writes to the wake pipe; all else is the Net agent's.

#include "keldUplink.h"

#include "keldAlarm.h"

#include <knxctl/advancedOption.h>
#include <knxctl/network.h>
#include <knxctl/sysinfo.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <optional>
#include <string_view>
#include <unistd.h>

namespace {

constexpr std::uint32_t kTransitionDelaySeconds = 2;
constexpr std::uint32_t kLinkStateDelaySeconds = 1;
constexpr std::uint32_t kWatchdogDelaySeconds = 7;
constexpr std::uint64_t kFlapWindowSeconds = 60;

// Restored clears are posted only when nothing of their kind is lost any more, on any NIC: each ends all
// problems of its type. Nothing ends a degraded redundancy.
consteval KeldPairing EndsEvery(const char *problem) { return {.clears = problem}; }

// clang-format off
constexpr EventText kConnectivityLost(
    "@&!*@*@(nox.problem.net.connectivity.lost)Lost network connectivity on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, nic, portGroups");
constexpr EventText kRedundancyLost(
    "@&!*@*@(nox.problem.net.redundancy.lost)Lost uplink redundancy on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, nic, portGroups");
constexpr EventText kRedundancyDegraded(
    "@&!*@*@(nox.problem.net.redundancy.degraded)Uplink redundancy degraded on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, nic, portGroups");
constexpr EventText kDvPortConnectivityLost(
    "@&!*@*@(nox.problem.net.dvport.connectivity.lost)Lost network connectivity on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, nic");
constexpr EventText kDvPortRedundancyLost(
    "@&!*@*@(nox.problem.net.dvport.redundancy.lost)Lost uplink redundancy on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, nic");
constexpr EventText kDvPortRedundancyDegraded(
    "@&!*@*@(nox.problem.net.dvport.redundancy.degraded)Uplink redundancy degraded on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, nic");
constexpr EventText kConnectivityRestored(
    "@&!*@*@(nox.clear.net.connectivity.restored)Network connectivity restored on virtual switch %s, portgroups: %s. Physical NIC %s is up",
    "switch, portGroups, nic", EndsEvery("nox.problem.net.connectivity.lost"));
constexpr EventText kRedundancyRestored(
    "@&!*@*@(nox.clear.net.redundancy.restored)Uplink redundancy restored on virtual switch %s, portgroups: %s. Physical NIC %s is up",
    "switch, portGroups, nic", EndsEvery("nox.problem.net.redundancy.lost"));
constexpr EventText kDvPortConnectivityRestored(
    "@&!*@*@(nox.clear.net.dvport.connectivity.restored)Network connectivity restored on DVPorts: %s. Physical NIC %s is up",
    "dvPorts, nic", EndsEvery("nox.problem.net.dvport.connectivity.lost"));
// KEPT: "is up recently", here alone; receivers match on this text.
constexpr EventText kDvPortRedundancyRestored(
    "@&!*@*@(nox.clear.net.dvport.redundancy.restored)Uplink redundancy restored on DVPorts: %s. Physical NIC %s is up recently",
    "dvPorts, nic", EndsEvery("nox.problem.net.dvport.redundancy.lost"));
constexpr EventText kLinkStateUp(
    "@&!*@*@(nox.clear.net.vmnic.linkstate.up)Physical NIC %s linkstate is up",
    "nic", {.clears = "nox.problem.net.vmnic.linkstate.down", .on = "nic"});
constexpr EventText kLinkStateDown(
    "@&!*@*@(nox.problem.net.vmnic.linkstate.down)Physical NIC %s linkstate is down", "nic");
// KEPT: a recovery, and yet a problem: the failure that it tells of was never reported, so that there is
// nothing that a clear could end.
constexpr EventText kWatchdogReset(
    "@&!*@*@(nox.problem.net.vmnic.watchdog.reset)Uplink %s has recovered from a transient failure due to watchdog timeout",
    "nic");
constexpr EventText kLinkFlapping(
    "@&!*@*@(nox.problem.net.vmnic.linkstate.flapping)Taking down physical NIC %s because the link is flapping.",
    "nic");
// clang-format on

KeldUplinkTables &tables = *new KeldUplinkTables;
int wakePipe[2] = {-1, -1}; // fixed before the alarm is first armed

bool HasState(const std::string &nic, std::uint32_t bit)
{
    const auto found = tables.nicStates.find(nic);
    return found != tables.nicStates.end() && (found->second & bit) == bit;
}

void ClearState(const std::string &nic, std::uint32_t bit) { tables.nicStates[nic] &= ~bit; }

// ---- Scheduling -----------------------------------------------------------------------------------

// Runs on the alarm thread.
void WakeUplinks()
{
    const char wake[] = "foo"; // sent with its NUL; what it says does not matter
    [[maybe_unused]] const ssize_t written = write(wakePipe[1], wake, sizeof wake);
}

void ArmAlarm(std::uint32_t seconds, std::uint64_t now)
{
    // 0 would disarm: after a step of the clock no record would ever come due again.
    tables.armedFor = std::max(seconds, std::uint32_t{1});
    tables.armedAt = now;
    (void)KeldAlarmSet(tables.wakeAlarm, kKeldAlarmOneShot, tables.armedFor);
}

void ScheduleUplinkTimeout(std::uint32_t delay, const std::string &nic, VmnicStateType state,
                           std::uint64_t now)
{
    tables.nicStates[nic] |= state;
    if (tables.pendingTimeouts.empty()) {
        ArmAlarm(delay, now);
    } else {
        // KEPT: reckoned from when the alarm was armed, but armed from now, in 32 unsigned bits. The pass
        // takes all that is due by then, so that a record is reported late by as long as the alarm has
        // been running, and never lost; an exact remainder would move events to other seconds.
        const auto candidate = static_cast<std::uint32_t>(delay - tables.armedAt + now);
        if (candidate < tables.armedFor) ArmAlarm(candidate, now);
    }
    tables.pendingTimeouts[nic].push_back({state, delay, now});
}

// Opens the NIC's batch with a time of its own, or joins the open one.
template <class Info>
void JoinBatch(std::map<std::string, std::vector<Info>> &batches, VmnicStateType state,
               const std::string &nic, Info info)
{
    if (!batches.contains(nic))
        ScheduleUplinkTimeout(kTransitionDelaySeconds, nic, state, KeldNowSeconds());
    batches[nic].push_back(std::move(info));
}

// ---- Reporting a batch ----------------------------------------------------------------------------

std::string Joined(const std::vector<std::string> &items)
{
    std::string joined;
    for (const std::string &item : items) {
        if (&item != &items.front()) joined += ", ";
        joined += item;
    }
    return joined;
}

// The virtual switch of a batch, by its first port group; empty when it cannot be found.
std::string VirtualSwitchOf(const std::vector<PortgroupInfo> &batch)
{
    try {
        return NodeAdm::Network::NetworkFactory::GetPortGroupByName(batch.front().name)
            ->GetVirtualSwitchName();
    } catch (const std::exception &) {
        return {};
    }
}

struct Losses {
    std::vector<std::string> connectivity, redundancy, degraded;
};

// Sorts a down batch by what is left, and keeps in mind what has to come back.
template <class Info>
Losses SortLosses(const std::string &nic, const std::vector<Info> &batch,
                  std::vector<LostItem> &lostConnectivity, std::vector<LostItem> &lostRedundancy)
{
    Losses losses;
    for (const Info &info : batch) {
        const std::string item = info.Item();
        if (info.classificationCount == 0) {
            losses.connectivity.push_back(item);
            lostConnectivity.push_back({nic, item});
        } else if (info.classificationCount == 1) {
            losses.redundancy.push_back(item);
            lostRedundancy.push_back({nic, item});
        } else if (info.classificationCount >= 2) {
            losses.degraded.push_back(item);
        }
    }
    return losses;
}

void ReportPortGroupsDown(const std::string &nic)
{
    const auto batch = tables.pgDownBatches.find(nic);
    if (batch == tables.pgDownBatches.end()) return;
    ClearState(nic, PgUplinkDown);
    const std::string virtualSwitch = VirtualSwitchOf(batch->second);
    // KEPT: the batch stays, without its bit and without a time: later transitions of the NIC join it and
    // are not reported. The NIC's link states, which the bit held back, carry the news from here on;
    // dropping the batch would report both.
    if (virtualSwitch.empty()) return;

    const auto [connectivity, redundancy, degraded] =
        SortLosses(nic, batch->second, tables.lostConnectivityPortGroups, tables.lostRedundancyPortGroups);
    if (!connectivity.empty())
        KeldPost<kConnectivityLost>(virtualSwitch.c_str(), nic.c_str(), Joined(connectivity).c_str());
    if (!redundancy.empty())
        KeldPost<kRedundancyLost>(virtualSwitch.c_str(), nic.c_str(), Joined(redundancy).c_str());
    if (!degraded.empty())
        KeldPost<kRedundancyDegraded>(virtualSwitch.c_str(), nic.c_str(), Joined(degraded).c_str());
    tables.pgDownBatches.erase(batch);
}

void ReportDvPortsDown(const std::string &nic)
{
    const auto batch = tables.dvPortDownBatches.find(nic);
    if (batch == tables.dvPortDownBatches.end()) return;
    ClearState(nic, DvPortUplinkDown);

    const auto [connectivity, redundancy, degraded] =
        SortLosses(nic, batch->second, tables.lostConnectivityDvPorts, tables.lostRedundancyDvPorts);
    if (!connectivity.empty()) KeldPost<kDvPortConnectivityLost>(Joined(connectivity).c_str(), nic.c_str());
    if (!redundancy.empty()) KeldPost<kDvPortRedundancyLost>(Joined(redundancy).c_str(), nic.c_str());
    if (!degraded.empty()) KeldPost<kDvPortRedundancyDegraded>(Joined(degraded).c_str(), nic.c_str());
    tables.dvPortDownBatches.erase(batch);
}

// KEPT: the item is looked for among the port groups also when it is a DVPort; a DVPort is forgotten by
// its NIC alone. Looked for in its own table, a DVPort whose other uplink came up would be forgotten with
// its first NIC still down, and connectivity would be called restored sooner than receivers expect.
void ForgetLost(std::vector<LostItem> &portGroups, std::vector<LostItem> &dvPorts, const std::string &nic,
                const std::string &item)
{
    std::erase_if(portGroups, [&](const LostItem &lost) { return lost.nic == nic || lost.item == item; });
    std::erase_if(dvPorts, [&](const LostItem &lost) { return lost.nic == nic; });
}

// Forgets what an up batch brings back. Gives the items with one uplink, whose connectivity is back;
// those with more are gathered in restoredRedundancy.
template <class Info>
std::vector<std::string> SortRestored(const std::string &nic, const std::vector<Info> &batch,
                                      std::vector<std::string> &restoredRedundancy)
{
    std::vector<std::string> restoredConnectivity;
    for (const Info &info : batch) {
        if (info.classificationCount < 1) continue;
        const std::string item = info.Item();
        ForgetLost(tables.lostConnectivityPortGroups, tables.lostConnectivityDvPorts, nic, item);
        if (info.classificationCount == 1) {
            restoredConnectivity.push_back(item);
        } else {
            restoredRedundancy.push_back(item);
            ForgetLost(tables.lostRedundancyPortGroups, tables.lostRedundancyDvPorts, nic, item);
        }
    }
    return restoredConnectivity;
}

bool NoConnectivityIsLost()
{
    return tables.lostConnectivityPortGroups.empty() && tables.lostConnectivityDvPorts.empty();
}

bool NoRedundancyIsLost()
{
    return tables.lostRedundancyPortGroups.empty() && tables.lostRedundancyDvPorts.empty();
}

void ReportPortGroupsUp(const std::string &nic)
{
    const auto batch = tables.pgUpBatches.find(nic);
    if (batch == tables.pgUpBatches.end()) return;
    ClearState(nic, PgUplinkUp);
    const std::string virtualSwitch = VirtualSwitchOf(batch->second);
    if (virtualSwitch.empty()) return; // KEPT: the batch stays, as a down batch does

    // KEPT: items whose connectivity is back are named now or never, those whose redundancy is back are
    // named when nothing is lost any more on any NIC, under the switch of the batch that brings that about.
    const auto connectivity = SortRestored(nic, batch->second, tables.restoredRedundancyPortGroups);
    auto &redundancy = tables.restoredRedundancyPortGroups;
    if (!connectivity.empty() && NoConnectivityIsLost())
        KeldPost<kConnectivityRestored>(virtualSwitch.c_str(), Joined(connectivity).c_str(), nic.c_str());
    if (!redundancy.empty() && NoRedundancyIsLost()) {
        KeldPost<kRedundancyRestored>(virtualSwitch.c_str(), Joined(redundancy).c_str(), nic.c_str());
        redundancy.clear();
    }
    tables.pgUpBatches.erase(batch);
}

void ReportDvPortsUp(const std::string &nic)
{
    const auto batch = tables.dvPortUpBatches.find(nic);
    if (batch == tables.dvPortUpBatches.end()) return;
    ClearState(nic, DvPortUplinkUp);

    const auto connectivity = SortRestored(nic, batch->second, tables.restoredRedundancyDvPorts);
    auto &redundancy = tables.restoredRedundancyDvPorts;
    if (!connectivity.empty() && NoConnectivityIsLost())
        KeldPost<kDvPortConnectivityRestored>(Joined(connectivity).c_str(), nic.c_str());
    if (!redundancy.empty() && NoRedundancyIsLost()) {
        KeldPost<kDvPortRedundancyRestored>(Joined(redundancy).c_str(), nic.c_str());
        redundancy.clear();
    }
    tables.dvPortUpBatches.erase(batch);
}

// ---- What comes due -------------------------------------------------------------------------------

// A driver that resets its NIC takes the link down and up: when both wait, it was a transient failure and
// they are not reported.
//
// KEPT: only that outcome clears WatchdogTimeout. After the others the NIC's later batches and link
// states are held, until another watchdog timeout of it is resolved: a NIC whose watchdog has fired and
// that has not recovered is not to be reported up and down by its own resets.
void ResolveWatchdogTimeout(const std::string &nic)
{
    const bool downPending =
        HasState(nic, PgUplinkDown) || HasState(nic, DvPortUplinkDown) || HasState(nic, LinkDown);
    const bool upPending =
        HasState(nic, PgUplinkUp) || HasState(nic, DvPortUplinkUp) || HasState(nic, LinkUp);

    if (downPending && !upPending) {
        if (HasState(nic, PgUplinkDown))
            ReportPortGroupsDown(nic);
        else if (HasState(nic, DvPortUplinkDown))
            ReportDvPortsDown(nic);
        else if (HasState(nic, LinkDown))
            KeldPost<kLinkStateDown>(nic.c_str());
        else
            Panic("Unknown state: %x\n", tables.nicStates[nic]);
    }
    if (!downPending || !upPending) return;

    if (HasState(nic, PgUplinkDown))
        tables.pgDownBatches.erase(nic);
    else if (HasState(nic, DvPortUplinkDown))
        tables.dvPortDownBatches.erase(nic);
    if (HasState(nic, PgUplinkUp)) tables.pgUpBatches.erase(nic);
    // KEPT: removes from dvPortDownBatches again, not from dvPortUpBatches; that batch reports itself
    // when its own timeout comes due, so that what had been lost before the reset is called restored.
    else if (HasState(nic, DvPortUplinkUp))
        tables.dvPortDownBatches.erase(nic);
    tables.nicStates[nic] = 0;
    KeldPost<kWatchdogReset>(nic.c_str());
}

void HandleDue(const std::string &nic, std::uint32_t state)
{
    // While a watchdog timeout stands, batches wait for it with their bits, and link states go unreported.
    const bool held = HasState(nic, WatchdogTimeout);
    switch (state) {
    case PgUplinkDown:
        if (!held) ReportPortGroupsDown(nic);
        return;
    case PgUplinkUp:
        if (!held) ReportPortGroupsUp(nic);
        return;
    case DvPortUplinkDown:
        if (!held) ReportDvPortsDown(nic);
        return;
    case DvPortUplinkUp:
        if (!held) ReportDvPortsUp(nic);
        return;
    case LinkUp:
        ClearState(nic, LinkUp);
        // The batch carries the news.
        if (HasState(nic, PgUplinkUp) || HasState(nic, DvPortUplinkUp)) return;
        if (!held) KeldPost<kLinkStateUp>(nic.c_str());
        return;
    case LinkDown:
        ClearState(nic, LinkDown);
        if (HasState(nic, PgUplinkDown) || HasState(nic, DvPortUplinkDown)) return;
        if (!held) KeldPost<kLinkStateDown>(nic.c_str());
        return;
    case WatchdogTimeout:
        ResolveWatchdogTimeout(nic);
        return;
    default:
        Panic("Received timeout event for unknown state: %x\n", state);
    }
}

// ---- Flapping -------------------------------------------------------------------------------------

// Takes a NIC down whose link went down more often within a minute than the kernel's option allows.
void CheckLinkFlapping(const std::string &nic, std::uint64_t now)
{
    std::deque<std::uint64_t> &history = tables.flapHistory[nic];
    history.push_back(now);
    while (!history.empty() && history.front() < now - kFlapWindowSeconds)
        history.pop_front();

    std::uint64_t threshold = 0;
    try {
        threshold = KnxCtl::Adv::AdvancedIntegerOptionImpl({"Net"}, "LinkFlappingThreshold").GetValue();
    } catch (const std::exception &) {
        return;
    }
    if (threshold == 0 || threshold >= history.size()) return; // 0: never

    KnxCtl::Util::Sysinfo linkFlapping(KIF_NODE_net_pNics_linkFlapping);
    linkFlapping.AddInstancePath(nic);
    linkFlapping.AddInput(1);
    if (linkFlapping.Set() != KNX_OK) return;
    KeldPost<kLinkFlapping>(nic.c_str());
    history.clear();
}

// ---- Observations ---------------------------------------------------------------------------------

constexpr KeldArguments kPortGroupDown = Indexed("%p %p %d %d", "nic, portGroup, uplinksLeft, uplinks");
constexpr KeldArguments kPortGroupUp = Indexed("%p %p %d", "nic, portGroup, uplinksUp");
constexpr KeldArguments kDvPortDown = Indexed("%p %p %p %d %d", "nic, switch, port, uplinksLeft, uplinks");
constexpr KeldArguments kDvPortUp = Indexed("%p %p %p %d", "nic, switch, port, uplinksUp");
constexpr KeldArguments kNic = Indexed("%p", "nic");

void KeldNetCorrelatorPgDown(Kel *kel)
{
    const char *nic = nullptr, *portGroup = nullptr;
    std::int32_t classification = 0, informational = 0;
    if (KeldRead<kPortGroupDown>(kel, &nic, &portGroup, &classification, &informational) != 0) return;
    JoinBatch(tables.pgDownBatches, PgUplinkDown, nic,
              PortgroupInfo{portGroup, informational, classification});
}

void KeldNetCorrelatorPgUp(Kel *kel)
{
    const char *nic = nullptr, *portGroup = nullptr;
    std::int32_t classification = 0;
    if (KeldRead<kPortGroupUp>(kel, &nic, &portGroup, &classification) != 0) return;
    JoinBatch(tables.pgUpBatches, PgUplinkUp, nic, PortgroupInfo{portGroup, 0, classification});
}

void KeldNetCorrelatorDvPortDown(Kel *kel)
{
    const char *nic = nullptr, *firstPart = nullptr, *secondPart = nullptr;
    std::int32_t classification = 0, informational = 0;
    if (KeldRead<kDvPortDown>(kel, &nic, &firstPart, &secondPart, &classification, &informational) != 0)
        return;
    JoinBatch(tables.dvPortDownBatches, DvPortUplinkDown, nic,
              DvPortInfo{firstPart, secondPart, informational, classification});
}

void KeldNetCorrelatorDvPortUp(Kel *kel)
{
    const char *nic = nullptr, *firstPart = nullptr, *secondPart = nullptr;
    std::int32_t classification = 0;
    if (KeldRead<kDvPortUp>(kel, &nic, &firstPart, &secondPart, &classification) != 0) return;
    JoinBatch(tables.dvPortUpBatches, DvPortUplinkUp, nic,
              DvPortInfo{firstPart, secondPart, 0, classification});
}

void KeldNetCorrelatorLinkDown(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    const std::uint64_t now = KeldNowSeconds();
    CheckLinkFlapping(nic, now);
    if (HasState(nic, PgUplinkDown) || HasState(nic, DvPortUplinkDown)) return;
    ScheduleUplinkTimeout(kLinkStateDelaySeconds, nic, LinkDown, now);
}

void KeldNetCorrelatorLinkUp(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    if (HasState(nic, PgUplinkUp) || HasState(nic, DvPortUplinkUp)) return;
    ScheduleUplinkTimeout(kLinkStateDelaySeconds, nic, LinkUp, KeldNowSeconds());
}

void KeldNetCorrelatorWatchdog(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    ScheduleUplinkTimeout(kWatchdogDelaySeconds, nic, WatchdogTimeout, KeldNowSeconds());
}

} // namespace

void ProcessUplinkTimeouts()
{
    if (tables.pendingTimeouts.empty()) return;
    const std::uint64_t now = KeldNowSeconds();
    std::optional<std::uint32_t> remaining;
    for (auto nic = tables.pendingTimeouts.begin(); nic != tables.pendingTimeouts.end();) {
        auto &[name, records] = *nic;
        for (auto record = records.begin(); record != records.end();) {
            // Unsigned: what was scheduled before the clock stepped back is due at once.
            if (record->delay <= now - record->timeStamp) {
                HandleDue(name, record->state);
                record = records.erase(record);
            } else {
                const auto left = static_cast<std::uint32_t>(record->timeStamp + record->delay - now);
                remaining = std::min(remaining.value_or(left), left);
                ++record;
            }
        }
        nic = records.empty() ? tables.pendingTimeouts.erase(nic) : std::next(nic);
    }
    if (remaining) ArmAlarm(*remaining, now);
}

int KeldUplinkInit()
{
    tables.wakeAlarm = KeldAlarmRegister(WakeUplinks);
    if (tables.wakeAlarm == -1) return -1;
    if (pipe2(wakePipe, O_CLOEXEC) != 0)
        Panic("Failed to initialize pipes for this thread: %s\n", std::strerror(errno));
    return wakePipe[0];
}

const KeldUplinkTables &KeldUplinkPeek() { return tables; }

// clang-format off
constinit const std::array<KeldObservation, 7> keldUplinkObservations{{
    {"kel.net.pg.uplink.transition.down", kPortGroupDown, KeldNetCorrelatorPgDown,
     "gathered for 2 seconds per NIC, then sorted by the uplinks left: none, one, several",
     {&kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded}},
    {"kel.net.pg.uplink.transition.up", kPortGroupUp, KeldNetCorrelatorPgUp,
     "gathered for 2 seconds per NIC, then posted as far as nothing is lost any more on any NIC",
     {&kConnectivityRestored, &kRedundancyRestored}},
    {"kel.net.dvport.uplink.transition.down", kDvPortDown, KeldNetCorrelatorDvPortDown,
     "gathered for 2 seconds per NIC, then sorted by the uplinks left: none, one, several",
     {&kDvPortConnectivityLost, &kDvPortRedundancyLost, &kDvPortRedundancyDegraded}},
    {"kel.net.dvport.uplink.transition.up", kDvPortUp, KeldNetCorrelatorDvPortUp,
     "gathered for 2 seconds per NIC, then posted as far as nothing is lost any more on any NIC",
     {&kDvPortConnectivityRestored, &kDvPortRedundancyRestored}},
    {"kel.net.vmnic.linkstate.down", kNic, KeldNetCorrelatorLinkDown,
     "posted after 1 second unless an uplink batch carries the news; too many within a minute take the NIC down",
     {&kLinkStateDown, &kLinkFlapping}},
    {"kel.net.vmnic.linkstate.up", kNic, KeldNetCorrelatorLinkUp,
     "posted after 1 second unless an uplink batch carries the news",
     {&kLinkStateUp}},
    {"kel.net.uplink.watchdog.timeout", kNic, KeldNetCorrelatorWatchdog,
     "holds the NIC's events back; down and up within 7 seconds are one transient failure, anything else is posted and holds on until a later timeout is transient",
     {&kWatchdogReset, &kLinkStateDown, &kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded,
      &kDvPortConnectivityLost, &kDvPortRedundancyLost, &kDvPortRedundancyDegraded}},
}};
// clang-format on
