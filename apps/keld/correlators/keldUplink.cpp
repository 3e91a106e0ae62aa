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
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <fcntl.h>
#include <map>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr std::uint32_t kTransitionDelaySeconds = 2;
constexpr std::uint32_t kLinkStateDelaySeconds = 1;
constexpr std::uint32_t kWatchdogDelaySeconds = 7;
constexpr std::uint64_t kFlapWindowSeconds = 60;

// Restored clears are posted only when nothing of their kind is lost any more, on any NIC, neither port
// groups nor DVPorts: each ends every such loss of both. A degraded redundancy ends with the same NIC's.
constexpr KeldPairing kEndsConnectivityLost{
    .clears = "nox.problem.net.connectivity.lost, nox.problem.net.dvport.connectivity.lost"};
constexpr KeldPairing kEndsRedundancyLost{
    .clears = "nox.problem.net.redundancy.lost, nox.problem.net.dvport.redundancy.lost"};

// clang-format off
constexpr EventText kConnectivityLost(
    "@&!*@*@(nox.problem.net.connectivity.lost)Lost network connectivity on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, *nic, portGroups");
constexpr EventText kRedundancyLost(
    "@&!*@*@(nox.problem.net.redundancy.lost)Lost uplink redundancy on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, *nic, portGroups");
constexpr EventText kRedundancyDegraded(
    "@&!*@*@(nox.problem.net.redundancy.degraded)Uplink redundancy degraded on virtual switch %s. Physical NIC %s is down. Affected port groups: %s",
    "switch, *nic, portGroups", {.on = "nic", .clearedBy = "nox.clear.net.redundancy.restored"});
constexpr EventText kDvPortConnectivityLost(
    "@&!*@*@(nox.problem.net.dvport.connectivity.lost)Lost network connectivity on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, *nic");
constexpr EventText kDvPortRedundancyLost(
    "@&!*@*@(nox.problem.net.dvport.redundancy.lost)Lost uplink redundancy on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, *nic");
constexpr EventText kDvPortRedundancyDegraded(
    "@&!*@*@(nox.problem.net.dvport.redundancy.degraded)Uplink redundancy degraded on DVPorts: %s. Physical NIC %s is down.",
    "dvPorts, *nic", {.on = "nic", .clearedBy = "nox.clear.net.dvport.redundancy.restored"});
constexpr EventText kConnectivityRestored(
    "@&!*@*@(nox.clear.net.connectivity.restored)Network connectivity restored on virtual switch %s, portgroups: %s. Physical NIC %s is up",
    "switch, portGroups, *nic", kEndsConnectivityLost);
constexpr EventText kRedundancyRestored(
    "@&!*@*@(nox.clear.net.redundancy.restored)Uplink redundancy restored on virtual switch %s, portgroups: %s. Physical NIC %s is up",
    "switch, portGroups, *nic", kEndsRedundancyLost);
constexpr EventText kDvPortConnectivityRestored(
    "@&!*@*@(nox.clear.net.dvport.connectivity.restored)Network connectivity restored on DVPorts: %s. Physical NIC %s is up",
    "dvPorts, *nic", kEndsConnectivityLost);
// KEPT: "is up recently", here alone; receivers match on this text.
constexpr EventText kDvPortRedundancyRestored(
    "@&!*@*@(nox.clear.net.dvport.redundancy.restored)Uplink redundancy restored on DVPorts: %s. Physical NIC %s is up recently",
    "dvPorts, *nic", kEndsRedundancyLost);
constexpr EventText kLinkStateUp(
    "@&!*@*@(nox.clear.net.vmnic.linkstate.up)Physical NIC %s linkstate is up",
    "*nic", {.clears = "nox.problem.net.vmnic.linkstate.down", .on = "nic"});
constexpr EventText kLinkStateDown(
    "@&!*@*@(nox.problem.net.vmnic.linkstate.down)Physical NIC %s linkstate is down", "*nic");
// KEPT: a recovery, and yet a problem: the failure that it tells of was never reported, so that there is
// nothing that a clear could end.
constexpr EventText kWatchdogReset(
    "@&!*@*@(nox.problem.net.vmnic.watchdog.reset)Uplink %s has recovered from a transient failure due to watchdog timeout",
    "*nic");
constexpr EventText kLinkFlapping(
    "@&!*@*@(nox.problem.net.vmnic.linkstate.flapping)Taking down physical NIC %s because the link is flapping.",
    "*nic");
// clang-format on

// ---- What is remembered, for the life of the process ----------------------------------------------

// What waits for its time, of one NIC.
enum VmnicStateType : std::uint32_t {
    PgUplinkDown = 0x01,     // a batch of port groups that lost an uplink
    PgUplinkUp = 0x02,       // a batch of port groups that got one back
    DvPortUplinkDown = 0x04, // the same of DVPorts
    DvPortUplinkUp = 0x08,
    LinkDown = 0x10, // a link state
    LinkUp = 0x20,
    WatchdogTimeout = 0x40, // a watchdog timeout that was not yet found to be a transient failure
};

struct VmnicAlarmInfo {
    VmnicStateType state;
    std::uint32_t delay;     // seconds
    std::uint64_t timeStamp; // wall-clock seconds when it was scheduled
};

// Keyed by the NIC's name, byte for byte as received.
auto &nicStates = *new std::map<std::string, std::uint32_t>;               // bits of VmnicStateType
auto &pendingTimeouts = *new std::multimap<std::string, VmnicAlarmInfo>;   // a NIC's in order of arrival
auto &flapHistory = *new std::map<std::string, std::deque<std::uint64_t>>; // link-downs, wall-clock seconds

int wakePipe[2] = {-1, -1}; // fixed before the alarm is first armed
int wakeAlarm = -1;         // likewise
std::uint32_t armedFor = 0; // seconds that the alarm was last armed for
std::uint64_t armedAt = 0;  // wall-clock seconds when that was

// Whether the NIC has one of these bits.
bool HasState(const std::string &nic, std::uint32_t bits) { return (nicStates[nic] & bits) != 0; }

// ---- Port groups and DVPorts: two kinds of one item -----------------------------------------------

enum Loss { Connectivity, Redundancy, Degraded }; // with no uplink left, one, several
using NamesByLoss = std::array<std::vector<std::string>, 3>;

struct UplinkItem {
    std::string name;                 // a port group's, or a DVPort's: "switch/port"
    std::int32_t classificationCount; // uplinks left, or up again; 2 stands for several
};
using UplinkBatch = std::vector<UplinkItem>;

struct LostItem {
    std::string nic, item;
};
struct UplinkKind {
    bool hasVirtualSwitch;                         // asked for by the batch's first item
    std::array<std::vector<LostItem>, 2> lost{};   // by Loss: reported and not yet restored, on all NICs
    std::vector<std::string> restoredRedundancy{}; // gathered until no redundancy is lost anywhere
};

UplinkKind &portGroups = *new UplinkKind{.hasVirtualSwitch = true};
UplinkKind &dvPorts = *new UplinkKind{.hasVirtualSwitch = false};

// KEPT: the item is looked for among the port groups also when it is a DVPort; a DVPort is forgotten by
// its NIC alone. Looked for in its own table, a DVPort whose other uplink came up would be forgotten with
// its first NIC still down, and connectivity would be called restored sooner than receivers expect.
void ForgetLost(Loss loss, const std::string &nic, const std::string &item)
{
    std::erase_if(portGroups.lost[loss],
                  [&](const auto &lost) { return lost.nic == nic || lost.item == item; });
    std::erase_if(dvPorts.lost[loss], [&](const auto &lost) { return lost.nic == nic; });
}

bool NothingIsLost(Loss loss) { return portGroups.lost[loss].empty() && dvPorts.lost[loss].empty(); }

// Of a batch's items, by Loss, what is to be posted now. What has to come back is kept in mind.
NamesByLoss SortLost(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch)
{
    NamesByLoss names;
    for (const auto &[name, uplinksLeft] : batch) {
        if (uplinksLeft < 0) continue;
        const Loss loss = uplinksLeft == 0 ? Connectivity : uplinksLeft == 1 ? Redundancy : Degraded;
        names[loss].push_back(name);
        if (loss != Degraded) kind.lost[loss].push_back({nic, name});
    }
    return names;
}

// The same of a batch that came up. What comes back is forgotten.
//
// KEPT: items whose connectivity is back are named now or never, those whose redundancy is back are named
// when nothing is lost any more on any NIC, under the switch of the batch that brings that about.
NamesByLoss SortRestored(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch)
{
    NamesByLoss names;
    for (const auto &[name, uplinksUp] : batch) {
        if (uplinksUp < 1) continue;
        ForgetLost(Connectivity, nic, name);
        if (uplinksUp == 1) {
            names[Connectivity].push_back(name);
        } else {
            ForgetLost(Redundancy, nic, name);
            kind.restoredRedundancy.push_back(name);
        }
    }
    if (!NothingIsLost(Connectivity)) names[Connectivity].clear();
    if (NothingIsLost(Redundancy)) names[Redundancy].swap(kind.restoredRedundancy);
    return names;
}

// Posts one text; each has its words in an order of its own.
enum Word { Switch, Nic, Items };
template <const EventText &kText, Word... kOrder> void Post(const std::array<const char *, 3> &words)
{
    KeldPost<kText>(words[kOrder]...);
}

// The batches of one kind and direction.
struct UplinkBatches {
    VmnicStateType bit; // set while the NIC's batch waits
    UplinkKind &kind;
    NamesByLoss (*sort)(UplinkKind &kind, const std::string &nic, const UplinkBatch &batch);
    std::array<void (*)(const std::array<const char *, 3> &words), 3> events; // by Loss
    std::map<std::string, UplinkBatch> byNic{};
};
// clang-format off
auto &pgDownBatches = *new UplinkBatches{PgUplinkDown, portGroups, SortLost,
    {Post<kConnectivityLost, Switch, Nic, Items>, Post<kRedundancyLost, Switch, Nic, Items>,
     Post<kRedundancyDegraded, Switch, Nic, Items>}};
auto &pgUpBatches = *new UplinkBatches{PgUplinkUp, portGroups, SortRestored,
    {Post<kConnectivityRestored, Switch, Items, Nic>, Post<kRedundancyRestored, Switch, Items, Nic>}};
auto &dvPortDownBatches = *new UplinkBatches{DvPortUplinkDown, dvPorts, SortLost,
    {Post<kDvPortConnectivityLost, Items, Nic>, Post<kDvPortRedundancyLost, Items, Nic>,
     Post<kDvPortRedundancyDegraded, Items, Nic>}};
auto &dvPortUpBatches = *new UplinkBatches{DvPortUplinkUp, dvPorts, SortRestored,
    {Post<kDvPortConnectivityRestored, Items, Nic>, Post<kDvPortRedundancyRestored, Items, Nic>}};
// clang-format on

// ---- Scheduling -----------------------------------------------------------------------------------

void ArmAlarm(std::uint32_t seconds, std::uint64_t now)
{
    // 0 would disarm: after a step of the clock no record would ever come due again.
    armedFor = std::max(seconds, std::uint32_t{1});
    armedAt = now;
    (void)KeldAlarmSet(wakeAlarm, kKeldAlarmOneShot, armedFor);
}

void ScheduleUplinkTimeout(std::uint32_t delay, const std::string &nic, VmnicStateType state)
{
    const std::uint64_t now = KeldNowSeconds();
    nicStates[nic] |= state;
    // KEPT: reckoned from when the alarm was armed, but armed from now, in 32 unsigned bits. The pass takes
    // all that is due by then, so that a record is reported late by as long as the alarm has been running,
    // and never lost; an exact remainder would move events to other seconds.
    const auto candidate = static_cast<std::uint32_t>(delay - armedAt + now);
    if (pendingTimeouts.empty())
        ArmAlarm(delay, now);
    else if (candidate < armedFor)
        ArmAlarm(candidate, now);
    pendingTimeouts.insert({nic, {state, delay, now}});
}

// Opens the NIC's batch with a time of its own, or joins the open one.
void JoinBatch(UplinkBatches &batches, const std::string &nic, const std::string &name, std::int32_t count)
{
    if (!batches.byNic.contains(nic)) ScheduleUplinkTimeout(kTransitionDelaySeconds, nic, batches.bit);
    batches.byNic[nic].push_back({name, count});
}

// ---- What comes due -------------------------------------------------------------------------------

// The virtual switch of a port group; empty when it cannot be found.
std::string VirtualSwitchOf(const std::string &portGroup)
{
    try {
        return NodeAdm::Network::NetworkFactory::GetPortGroupByName(portGroup)->GetVirtualSwitchName();
    } catch (const std::exception &) {
        return {};
    }
}

// Reports the NIC's batch, and forgets it.
void Report(UplinkBatches &batches, const std::string &nic)
{
    const auto batch = batches.byNic.find(nic);
    if (batch == batches.byNic.end()) return;
    nicStates[nic] &= ~batches.bit;
    std::string virtualSwitch;
    if (batches.kind.hasVirtualSwitch) {
        virtualSwitch = VirtualSwitchOf(batch->second[0].name);
        // KEPT: the batch stays, without its bit and without a time: later transitions of the NIC join it
        // and are not reported. The NIC's link states, which the bit held back, carry the news from here
        // on; dropping the batch would report both.
        if (virtualSwitch.empty()) return;
    }
    const NamesByLoss names = batches.sort(batches.kind, nic, batch->second);
    for (const Loss loss : {Connectivity, Redundancy, Degraded}) {
        if (names[loss].empty()) continue;
        std::string items = names[loss][0];
        for (std::size_t i = 1; i < names[loss].size(); ++i)
            items += ", " + names[loss][i];
        batches.events[loss]({virtualSwitch.c_str(), nic.c_str(), items.c_str()});
    }
    batches.byNic.erase(batch);
}

// A driver that resets its NIC takes the link down and up: when both wait, it was a transient failure and
// they are not reported.
//
// KEPT: only that outcome clears WatchdogTimeout. After the others the NIC's later batches and link
// states are held, until another watchdog timeout of it is resolved: a NIC whose watchdog has fired and
// that has not recovered is not to be reported up and down by its own resets.
void ResolveWatchdogTimeout(const std::string &nic)
{
    const bool downPending = HasState(nic, PgUplinkDown | DvPortUplinkDown | LinkDown);
    const bool upPending = HasState(nic, PgUplinkUp | DvPortUplinkUp | LinkUp);
    if (!downPending) return;
    if (!upPending) {
        if (HasState(nic, PgUplinkDown))
            Report(pgDownBatches, nic);
        else if (HasState(nic, DvPortUplinkDown))
            Report(dvPortDownBatches, nic);
        else if (HasState(nic, LinkDown))
            KeldPost<kLinkStateDown>(nic.c_str());
        else
            Panic("Unknown state: %x\n", nicStates[nic]);
        return;
    }
    if (HasState(nic, PgUplinkDown))
        pgDownBatches.byNic.erase(nic);
    else if (HasState(nic, DvPortUplinkDown))
        dvPortDownBatches.byNic.erase(nic);
    if (HasState(nic, PgUplinkUp)) pgUpBatches.byNic.erase(nic);
    // KEPT: removes from dvPortDownBatches again, not from dvPortUpBatches; that batch reports itself
    // when its own timeout comes due, so that what had been lost before the reset is called restored.
    else if (HasState(nic, DvPortUplinkUp))
        dvPortDownBatches.byNic.erase(nic);
    nicStates[nic] = 0;
    KeldPost<kWatchdogReset>(nic.c_str());
}

void HandleDue(const std::string &nic, VmnicStateType state)
{
    if (state == WatchdogTimeout) return ResolveWatchdogTimeout(nic);
    if (state == LinkDown || state == LinkUp) nicStates[nic] &= ~state;
    // While a watchdog timeout stands, batches wait for it with their bits, and link states go unreported.
    if (HasState(nic, WatchdogTimeout)) return;
    switch (state) {
    case PgUplinkDown:
        return Report(pgDownBatches, nic);
    case PgUplinkUp:
        return Report(pgUpBatches, nic);
    case DvPortUplinkDown:
        return Report(dvPortDownBatches, nic);
    case DvPortUplinkUp:
        return Report(dvPortUpBatches, nic);
    case LinkDown: // unless a batch of its direction carries the news
        if (!HasState(nic, PgUplinkDown | DvPortUplinkDown)) KeldPost<kLinkStateDown>(nic.c_str());
        return;
    case LinkUp:
        if (!HasState(nic, PgUplinkUp | DvPortUplinkUp)) KeldPost<kLinkStateUp>(nic.c_str());
        return;
    default:
        Panic("Received timeout event for unknown state: %x\n", state);
    }
}

// ---- Flapping -------------------------------------------------------------------------------------

// Takes a NIC down whose link went down more often within a minute than the kernel's option allows.
void CheckLinkFlapping(const std::string &nic)
{
    const std::uint64_t now = KeldNowSeconds();
    std::deque<std::uint64_t> &history = flapHistory[nic];
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

constexpr KeldArguments kPortGroupDown = Indexed("%p %p %d %d", "*nic, portGroup, uplinksLeft, uplinks");
constexpr KeldArguments kPortGroupUp = Indexed("%p %p %d", "*nic, portGroup, uplinksUp");
constexpr KeldArguments kDvPortDown = Indexed("%p %p %p %d %d", "*nic, switch, port, uplinksLeft, uplinks");
constexpr KeldArguments kDvPortUp = Indexed("%p %p %p %d", "*nic, switch, port, uplinksUp");
constexpr KeldArguments kNic = Indexed("%p", "*nic");

// The last argument of a down is for people: it must be there, and no decision reads it.
void KeldNetCorrelatorPgDown(Kel *kel)
{
    const char *nic = nullptr, *portGroup = nullptr;
    std::int32_t uplinksLeft = 0, uplinks = 0;
    if (KeldRead<kPortGroupDown>(kel, &nic, &portGroup, &uplinksLeft, &uplinks) != 0) return;
    JoinBatch(pgDownBatches, nic, portGroup, uplinksLeft);
}

void KeldNetCorrelatorPgUp(Kel *kel)
{
    const char *nic = nullptr, *portGroup = nullptr;
    std::int32_t uplinksUp = 0;
    if (KeldRead<kPortGroupUp>(kel, &nic, &portGroup, &uplinksUp) != 0) return;
    JoinBatch(pgUpBatches, nic, portGroup, uplinksUp);
}

void KeldNetCorrelatorDvPortDown(Kel *kel)
{
    const char *nic = nullptr, *dvSwitch = nullptr, *port = nullptr;
    std::int32_t uplinksLeft = 0, uplinks = 0;
    if (KeldRead<kDvPortDown>(kel, &nic, &dvSwitch, &port, &uplinksLeft, &uplinks) != 0) return;
    JoinBatch(dvPortDownBatches, nic, std::string(dvSwitch) + "/" + port, uplinksLeft);
}

void KeldNetCorrelatorDvPortUp(Kel *kel)
{
    const char *nic = nullptr, *dvSwitch = nullptr, *port = nullptr;
    std::int32_t uplinksUp = 0;
    if (KeldRead<kDvPortUp>(kel, &nic, &dvSwitch, &port, &uplinksUp) != 0) return;
    JoinBatch(dvPortUpBatches, nic, std::string(dvSwitch) + "/" + port, uplinksUp);
}

void KeldNetCorrelatorLinkDown(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    CheckLinkFlapping(nic); // may take its time
    if (!HasState(nic, PgUplinkDown | DvPortUplinkDown))
        ScheduleUplinkTimeout(kLinkStateDelaySeconds, nic, LinkDown);
}

void KeldNetCorrelatorLinkUp(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    if (!HasState(nic, PgUplinkUp | DvPortUplinkUp))
        ScheduleUplinkTimeout(kLinkStateDelaySeconds, nic, LinkUp);
}

void KeldNetCorrelatorWatchdog(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    ScheduleUplinkTimeout(kWatchdogDelaySeconds, nic, WatchdogTimeout);
}

} // namespace

void ProcessUplinkTimeouts()
{
    const std::uint64_t now = KeldNowSeconds();
    std::optional<std::uint32_t> remaining;
    for (auto it = pendingTimeouts.begin(); it != pendingTimeouts.end();) {
        const auto &[nic, record] = *it;
        // Unsigned: what was scheduled before the clock stepped back is due at once.
        if (record.delay <= now - record.timeStamp) {
            HandleDue(nic, record.state);
            it = pendingTimeouts.erase(it);
        } else {
            const auto left = static_cast<std::uint32_t>(record.timeStamp + record.delay - now);
            remaining = std::min(remaining.value_or(left), left);
            ++it;
        }
    }
    if (remaining) ArmAlarm(*remaining, now);
}

int KeldUplinkInit()
{
    // On the alarm thread; sent with its NUL, and what it says does not matter.
    wakeAlarm = KeldAlarmRegister([] { (void)!write(wakePipe[1], "foo", sizeof "foo"); });
    if (wakeAlarm == -1) return -1;
    if (pipe2(wakePipe, O_CLOEXEC) != 0)
        Panic("Failed to initialize pipes for this thread: %s\n", std::strerror(errno));
    return wakePipe[0];
}

// clang-format off
constexpr KeldLimit kTransitionDelay{"delay", kTransitionDelaySeconds, "seconds"};
constexpr KeldLimit kLinkStateDelay{"delay", kLinkStateDelaySeconds, "seconds"};
constexpr KeldLimit kWatchdogDelay{"delay", kWatchdogDelaySeconds, "seconds"};
constexpr KeldLimit kFlapWindow{"window", kFlapWindowSeconds, "seconds"};

constexpr KeldNote kGatheredDown{
    "gathered for {delay} per NIC, then sorted by the uplinks left: none, one, several", kTransitionDelay};
constexpr KeldNote kGatheredUp{
    "gathered for {delay} per NIC, then posted as far as nothing is lost any more on any NIC", kTransitionDelay};

constinit const std::array<KeldObservation, 7> keldUplinkObservations{{
    {"kel.net.pg.uplink.transition.down", kPortGroupDown, KeldNetCorrelatorPgDown,
     kGatheredDown, {&kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded}},
    {"kel.net.pg.uplink.transition.up", kPortGroupUp, KeldNetCorrelatorPgUp,
     kGatheredUp, {&kConnectivityRestored, &kRedundancyRestored}},
    {"kel.net.dvport.uplink.transition.down", kDvPortDown, KeldNetCorrelatorDvPortDown,
     kGatheredDown, {&kDvPortConnectivityLost, &kDvPortRedundancyLost, &kDvPortRedundancyDegraded}},
    {"kel.net.dvport.uplink.transition.up", kDvPortUp, KeldNetCorrelatorDvPortUp,
     kGatheredUp, {&kDvPortConnectivityRestored, &kDvPortRedundancyRestored}},
    {"kel.net.vmnic.linkstate.down", kNic, KeldNetCorrelatorLinkDown,
     {"posted after {delay} unless an uplink batch carries the news; too many within {window} take the NIC down", kLinkStateDelay, kFlapWindow},
     {&kLinkStateDown, &kLinkFlapping}},
    {"kel.net.vmnic.linkstate.up", kNic, KeldNetCorrelatorLinkUp,
     {"posted after {delay} unless an uplink batch carries the news", kLinkStateDelay},
     {&kLinkStateUp}},
    {"kel.net.uplink.watchdog.timeout", kNic, KeldNetCorrelatorWatchdog,
     {"holds the NIC's events back; down and up within {delay} are one transient failure, anything else is posted and holds on until a later timeout is transient", kWatchdogDelay},
     {&kWatchdogReset, &kLinkStateDown, &kConnectivityLost, &kRedundancyLost, &kRedundancyDegraded,
      &kDvPortConnectivityLost, &kDvPortRedundancyLost, &kDvPortRedundancyDegraded}},
}};
// clang-format on
