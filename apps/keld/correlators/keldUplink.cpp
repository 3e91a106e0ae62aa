// Uplink tracking.
//
// Arrives    bursts: one transition per port group or DVPort of a NIC, a link state, a watchdog timeout.
// Remembers  per NIC: seven state bits, link-downs of the last minute (keldLinkFlapping.cpp), the waiting
//            batches; across all NICs what was reported lost (keldUplinkBatch.cpp).
// Posts      connectivity and redundancy lost, degraded, restored; link states; watchdog reset; flapping.
// Time       2 s for transitions, 1 s for link states, 7 s for the watchdog; one alarm for all of it.
//
// The alarm handler, on the alarm thread, only writes to the wake pipe; all else is the Net agent's.

#include "keldUplink.h"

#include "keldAlarm.h"
#include "keldLinkFlapping.h"
#include "keldUplinkBatch.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <map>
#include <optional>
#include <string>
#include <unistd.h>

using namespace KeldUplink;

namespace {

constexpr std::uint32_t kTransitionDelaySeconds = 2;
constexpr std::uint32_t kLinkStateDelaySeconds = 1;
constexpr std::uint32_t kWatchdogDelaySeconds = 7;

// clang-format off
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
    KeldOrigin origin;       // of a link state or watchdog timeout; what a batch holds has its own
};

// Keyed by the NIC's name, byte for byte as received.
auto &nicStates = *new std::map<std::string, std::uint32_t>; // bits of VmnicStateType; none has no entry
auto &pendingTimeouts = *new std::multimap<std::string, VmnicAlarmInfo>; // a NIC's in order of arrival

int wakePipe[2] = {-1, -1}; // fixed before the alarm is first armed
int wakeAlarm = -1;         // likewise
std::uint32_t armedFor = 0; // seconds that the alarm was last armed for
std::uint64_t armedAt = 0;  // wall-clock seconds when that was

// Whether the NIC has one of these bits.
bool HasState(const std::string &nic, std::uint32_t bits)
{
    const auto found = nicStates.find(nic);
    return found != nicStates.end() && (found->second & bits) != 0;
}

void ClearState(const std::string &nic, std::uint32_t bits)
{
    const auto found = nicStates.find(nic);
    if (found != nicStates.end() && (found->second &= ~bits) == 0) nicStates.erase(found);
}

UplinkBatches &BatchesOf(VmnicStateType state)
{
    switch (state) {
    case PgUplinkDown:
        return pgDownBatches;
    case PgUplinkUp:
        return pgUpBatches;
    case DvPortUplinkDown:
        return dvPortDownBatches;
    case DvPortUplinkUp:
        return dvPortUpBatches;
    default:
        Panic("Received timeout event for unknown state: %x\n", state);
    }
}

// ---- Scheduling -----------------------------------------------------------------------------------

void ArmAlarm(std::uint32_t seconds, std::uint64_t now)
{
    // 0 would disarm: after a step of the clock no record would ever come due again.
    armedFor = std::max(seconds, std::uint32_t{1});
    armedAt = now;
    (void)KeldAlarmSet(wakeAlarm, kKeldAlarmOneShot, armedFor);
}

// Gives when it is due, for the present observation.
KeldTimeOfDay ScheduleUplinkTimeout(std::uint32_t delay, const std::string &nic, VmnicStateType state)
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
    pendingTimeouts.insert({nic, {state, delay, now, KeldPresent()}});
    return KeldTimeOfDay(now + delay);
}

// Opens the NIC's batch with a time of its own, or joins the open one.
void JoinBatch(VmnicStateType state, const std::string &nic, const std::string &item, std::int32_t count)
{
    UplinkBatches &batches = BatchesOf(state);
    if (!HasBatch(batches, nic)) ScheduleUplinkTimeout(kTransitionDelaySeconds, nic, state);
    const std::size_t size = AddToBatch(batches, nic, item, count);
    const auto [first, last] = pendingTimeouts.equal_range(nic);
    const auto due =
        std::find_if(first, last, [&](const auto &pending) { return pending.second.state == state; });
    if (due == last)
        return KeldSay(KeldFate::Gathered, "number %zu of a batch of %s, which has missed its time", size,
                       nic.c_str());
    KeldSay(KeldFate::Gathered, "number %zu of a batch of %s, due at %s", size, nic.c_str(),
            KeldTimeOfDay(due->second.timeStamp + due->second.delay).text);
}

// ---- What comes due -------------------------------------------------------------------------------

// Of a link state or a watchdog timeout that was gathered: what became of it, or an event about its NIC.
void Tell(KeldOrigin origin, KeldOutcome outcome, const char *why, const std::string &nic)
{
    KeldOrigins origins;
    origins.Add(origin);
    origins.Became(outcome, "%s: %s", nic.c_str(), why);
}
template <const EventText &kText> void PostOf(KeldOrigin origin, const std::string &nic)
{
    KeldOrigins origins;
    origins.Add(origin);
    KeldPost<kText>(nic.c_str());
}

void Report(VmnicStateType state, const std::string &nic)
{
    ClearState(nic, state);
    ReportBatch(BatchesOf(state), nic);
}

// Of what waits, that which is reported of a NIC that went down and did not come up.
void ReportDown(const std::string &nic, KeldOrigin watchdog)
{
    if (HasState(nic, PgUplinkDown))
        Report(PgUplinkDown, nic);
    else if (HasState(nic, DvPortUplinkDown))
        Report(DvPortUplinkDown, nic);
    else if (HasState(nic, LinkDown))
        PostOf<kLinkStateDown>(watchdog, nic);
    else
        Panic("Unknown state: %x\n", nicStates[nic]);
}

// A driver that resets its NIC takes the link down and up: when both wait, it was a transient failure and
// they are not reported.
//
// KEPT: only that outcome clears WatchdogTimeout. After the others the NIC's later batches and link
// states are held, until another watchdog timeout of it is resolved: a NIC whose watchdog has fired and
// that has not recovered is not to be reported up and down by its own resets.
void ResolveWatchdogTimeout(const std::string &nic, KeldOrigin origin)
{
    const bool downPending = HasState(nic, PgUplinkDown | DvPortUplinkDown | LinkDown);
    const bool upPending = HasState(nic, PgUplinkUp | DvPortUplinkUp | LinkUp);
    if (!downPending || !upPending) {
        Tell(origin, KeldOutcome::StillOpen,
             "no transient failure; held until a later watchdog timeout is one", nic);
        if (downPending) ReportDown(nic, origin);
        return;
    }
    constexpr const char *kWhy = "a transient failure";
    if (HasState(nic, PgUplinkDown))
        DropBatch(pgDownBatches, nic, kWhy);
    else if (HasState(nic, DvPortUplinkDown))
        DropBatch(dvPortDownBatches, nic, kWhy);
    if (HasState(nic, PgUplinkUp)) DropBatch(pgUpBatches, nic, kWhy);
    // KEPT: removes from dvPortDownBatches again, not from dvPortUpBatches; that batch reports itself
    // when its own timeout comes due, so that what had been lost before the reset is called restored.
    else if (HasState(nic, DvPortUplinkUp))
        DropBatch(dvPortDownBatches, nic, kWhy);
    nicStates.erase(nic);
    PostOf<kWatchdogReset>(origin, nic);
}

// A link state is reported unless a batch of its direction carries the news.
template <const EventText &kText>
void ReportLinkState(const std::string &nic, KeldOrigin origin, std::uint32_t batchBits)
{
    if (HasState(nic, WatchdogTimeout))
        Tell(origin, KeldOutcome::Discarded, "held by its watchdog", nic);
    else if (HasState(nic, batchBits))
        Tell(origin, KeldOutcome::Discarded, "a batch carries the news", nic);
    else
        PostOf<kText>(origin, nic);
}

void HandleDue(const std::string &nic, VmnicStateType state, KeldOrigin origin)
{
    switch (state) {
    case WatchdogTimeout:
        return ResolveWatchdogTimeout(nic, origin);
    case LinkDown:
        ClearState(nic, LinkDown);
        return ReportLinkState<kLinkStateDown>(nic, origin, PgUplinkDown | DvPortUplinkDown);
    case LinkUp:
        ClearState(nic, LinkUp);
        return ReportLinkState<kLinkStateUp>(nic, origin, PgUplinkUp | DvPortUplinkUp);
    default: // batches wait with their bits while a watchdog timeout stands
        if (HasState(nic, WatchdogTimeout))
            HoldBatch(BatchesOf(state), nic, "held by its watchdog");
        else
            Report(state, nic);
    }
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
    JoinBatch(PgUplinkDown, nic, portGroup, uplinksLeft);
}

void KeldNetCorrelatorPgUp(Kel *kel)
{
    const char *nic = nullptr, *portGroup = nullptr;
    std::int32_t uplinksUp = 0;
    if (KeldRead<kPortGroupUp>(kel, &nic, &portGroup, &uplinksUp) != 0) return;
    JoinBatch(PgUplinkUp, nic, portGroup, uplinksUp);
}

void KeldNetCorrelatorDvPortDown(Kel *kel)
{
    const char *nic = nullptr, *dvSwitch = nullptr, *port = nullptr;
    std::int32_t uplinksLeft = 0, uplinks = 0;
    if (KeldRead<kDvPortDown>(kel, &nic, &dvSwitch, &port, &uplinksLeft, &uplinks) != 0) return;
    JoinBatch(DvPortUplinkDown, nic, std::string(dvSwitch) + "/" + port, uplinksLeft);
}

void KeldNetCorrelatorDvPortUp(Kel *kel)
{
    const char *nic = nullptr, *dvSwitch = nullptr, *port = nullptr;
    std::int32_t uplinksUp = 0;
    if (KeldRead<kDvPortUp>(kel, &nic, &dvSwitch, &port, &uplinksUp) != 0) return;
    JoinBatch(DvPortUplinkUp, nic, std::string(dvSwitch) + "/" + port, uplinksUp);
}

void KeldNetCorrelatorLinkDown(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    const auto [linkDowns, verdict] = CheckLinkFlapping(nic); // may take its time
    if (HasState(nic, PgUplinkDown | DvPortUplinkDown))
        return KeldSay(KeldFate::Ignored, "a batch of %s carries the news; link-downs in 60 s: %zu, %s",
                       nic, linkDowns, verdict);
    KeldSay(KeldFate::Gathered, "due at %s; link-downs in 60 s: %zu, %s",
            ScheduleUplinkTimeout(kLinkStateDelaySeconds, nic, LinkDown).text, linkDowns, verdict);
}

void KeldNetCorrelatorLinkUp(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    if (HasState(nic, PgUplinkUp | DvPortUplinkUp))
        return KeldSay(KeldFate::Ignored, "a batch of %s carries the news", nic);
    KeldSay(KeldFate::Gathered, "due at %s",
            ScheduleUplinkTimeout(kLinkStateDelaySeconds, nic, LinkUp).text);
}

void KeldNetCorrelatorWatchdog(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    KeldSay(KeldFate::Gathered, "due at %s; until then %s is held",
            ScheduleUplinkTimeout(kWatchdogDelaySeconds, nic, WatchdogTimeout).text, nic);
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
            HandleDue(nic, record.state, record.origin);
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
