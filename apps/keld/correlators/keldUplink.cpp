// Uplink tracking.
//
// Arrives    bursts: one transition per port group or DVPort of a NIC, a link state, a watchdog timeout.
// Remembers  per NIC: seven state bits, what waits for its time (keldUplinkTimeout.cpp), link-downs of the
//            last minute (keldLinkFlapping.cpp); batches, and what was reported lost (keldUplinkBatch.cpp).
// Posts      connectivity and redundancy lost, degraded, restored; link states; watchdog reset; flapping.
// Time       2 s for transitions, 1 s for link states, 7 s for the watchdog; one alarm for all of it.

#include "keldUplink.h"

#include "keldLinkFlapping.h"
#include "keldUplinkBatch.h"
#include "keldUplinkTimeout.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>

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

// ---- State bits -----------------------------------------------------------------------------------

// Bits of VmnicStateType, by the NIC's name, byte for byte as received; a NIC without bits has no entry.
auto &nicStates = *new std::map<std::string, std::uint32_t>;

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

// Sets the bit, and has it handled after the delay. Gives when that is due.
KeldTimeOfDay WaitFor(std::uint32_t delaySeconds, const std::string &nic, VmnicStateType state)
{
    nicStates[nic] |= state;
    return KeldTimeOfDay(ScheduleUplinkTimeout(delaySeconds, nic, state));
}

// ---- What arrives ---------------------------------------------------------------------------------

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

// Opens the NIC's batch with a time of its own, or joins the open one.
void JoinBatch(VmnicStateType state, const std::string &nic, const std::string &item, std::int32_t count)
{
    UplinkBatches &batches = BatchesOf(state);
    if (!HasBatch(batches, nic)) WaitFor(kTransitionDelaySeconds, nic, state);
    const std::size_t size = AddToBatch(batches, nic, item, count);
    if (const std::optional<std::uint64_t> due = UplinkTimeoutDue(nic, state))
        KeldSay(KeldFate::Gathered, "number %zu of a batch of %s, due at %s", size, nic.c_str(),
                KeldTimeOfDay(*due).text);
    else
        KeldSay(KeldFate::Gathered, "number %zu of a batch of %s, which has missed its time", size,
                nic.c_str());
}

// ---- What comes due -------------------------------------------------------------------------------

// For a link state or a watchdog timeout that was gathered: Tell says what has become of it, PostOf posts
// an event about its NIC.
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

// Reports, of what waits, the first that there is: port groups, DVPorts, the link. For a NIC that went down
// and did not come up.
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

// A driver that resets its NIC takes the link down and up again. When a down and an up both wait, it was a
// transient failure, and neither is reported.
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
    default: // a batch keeps its bit and waits on while a watchdog timeout is open
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
            WaitFor(kLinkStateDelaySeconds, nic, LinkDown).text, linkDowns, verdict);
}

void KeldNetCorrelatorLinkUp(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    if (HasState(nic, PgUplinkUp | DvPortUplinkUp))
        return KeldSay(KeldFate::Ignored, "a batch of %s carries the news", nic);
    KeldSay(KeldFate::Gathered, "due at %s", WaitFor(kLinkStateDelaySeconds, nic, LinkUp).text);
}

void KeldNetCorrelatorWatchdog(Kel *kel)
{
    const char *nic = nullptr;
    if (KeldRead<kNic>(kel, &nic) != 0) return;
    KeldSay(KeldFate::Gathered, "due at %s; until then %s is held",
            WaitFor(kWatchdogDelaySeconds, nic, WatchdogTimeout).text, nic);
}

} // namespace

void ProcessUplinkTimeouts() { HandleUplinkTimeouts(HandleDue); }

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
     {"posted after {delay} unless an uplink batch carries the news; too many within {window} take the NIC down, which is posted at once", kLinkStateDelay, kFlapWindow},
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
