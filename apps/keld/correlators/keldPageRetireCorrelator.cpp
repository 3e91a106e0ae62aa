// Page retirement.
//
// Arrives    counts of pages selected for retirement, requests of the platform's firmware, machine check
//            exceptions that were injected into virtual machines for bad guest pages.
// Remembers  whether the count of pages not retired was posted, the selected count posted last, and per
//            virtual machine the injections of the last 60 seconds.
// Posts      each kind of report as a problem; a virtual machine that keeps using a bad page is
//            reported and stopped.
// Time       60 s for an injection to count; 50 of one page, spread over 2 s or more, stop the machine.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldOwn.h"

#include <kltlibs/kif.h>
#include <knxctl/resourceInfo.h>

#include <cinttypes>
#include <exception>
#include <map>

namespace {

constexpr char kModule[] = "apps/keld/keldPageRetireCorrelator";

constexpr std::uint64_t kInjectionSeconds = 60;
constexpr std::int32_t kInjectionsToKill = 50;
constexpr std::uint32_t kSpreadToKillSeconds = 2;
static_assert(kSpreadToKillSeconds <= kInjectionSeconds, "injections spread that far are still remembered");

// clang-format off
constexpr KeldArguments kNotRetiredCount =
    ByMessage("Number of selected but not retired MPNs is high: %lu.", "count");
constexpr EventText kNotRetiredHigh(
    "@&!*@*@(nox.problem.pageretire.selectedbutnotretired.high)Number of host physical memory pages that have been selected for retirement but could not yet be retired is high: %lu",
    "count");

constexpr KeldArguments kSelectedCount =
    ByMessage("Number of MPNs selected for retirement is %lu", "count");
constexpr EventText kThresholdExceeded(
    "@&!*@*@(nox.problem.pageretire.selectedmpnthreshold.host.exceeded)Number of host physical memory pages that have been selected for retirement (%lu) exceeds threshold (%lu).",
    "count, threshold");

constexpr KeldArguments kInjection =
    ByMessage("Injected MCE for PPN %x into virtual machine %d.", "page, *worldId");
constexpr EventText kKilling(
    "@&!*@*@(nox.problem.pageretire.mce.injected.2)Killing %s because at least %d uncorrectable memory error machine check exceptions were injected for guest physical page %#x but the virtual machine's operating system kept using the page.",
    "*virtualMachine, injections, page");

constexpr KeldArguments kFirmwareRequest =
    ByMessage("Memory page retirement requested by platform firmware. FRU ID: %s. Refer to System Hardware Log: %s", "*fru, hardwareLog");
constexpr EventText kRequestedByFirmware(
    "@&!*@*@(nox.problem.pageretire.platform.retire.request)Memory page retirement requested by platform firmware. FRU ID: %s. Refer to System Hardware Log: %s",
    "*fru, hardwareLog");
// clang-format on

struct VirtualMachineRecord {
    bool killed = false;
    std::multimap<std::uint32_t, std::uint64_t> injections; // guest page, seconds
};

struct State {
    // Fixed after start.
    std::uint64_t threshold = 0; // pages
    std::uint64_t interval = 0;  // percent of the threshold

    bool notRetiredPosted = false;
    std::uint64_t lastPostedCount = 0;
    std::map<std::uint32_t, VirtualMachineRecord> virtualMachines; // by world ID
};
State &state = *new State;

// Panics on a failure, with panicLine in the message: the line is a part of the message, not of this file.
std::uint64_t ReadOption(const char *name, int panicLine)
{
    const KifParamListPtr option(KIF_ParamListCreate());
    KifIntOption value{};
    if (option == nullptr || KIF_ParamListAddString(option.get(), "PageRetire") != KNX_OK ||
        KIF_ParamListAddString(option.get(), name) != KNX_OK ||
        KIF_Get(KIF_NODE_config_intOptions, option.get(), &value, sizeof value) != KNX_OK)
        KeldNotReached(kModule, panicLine);
    return static_cast<std::uint64_t>(value.current);
}

void KeldPageRetireCorrelatorNotRetired(Kel *kel)
{
    std::uint64_t count = 0;
    if (KeldRead<kNotRetiredCount>(kel, &count) != 0) return;
    if (state.notRetiredPosted)
        return KeldSay(KeldFate::HeldBack, "posted before; again when the daemon has been restarted");
    KeldPost<kNotRetiredHigh>(count);
    // KEPT: once for a run of the daemon, also when the count falls and rises again.
    state.notRetiredPosted = true;
}

// KEPT: unsigned throughout. With an interval above 100 percent, count - step can wrap around, and then
// every count above the threshold is posted.
void KeldPageRetireCorrelatorThreshold(Kel *kel)
{
    std::uint64_t count = 0;
    if (KeldRead<kSelectedCount>(kel, &count) != 0) return;
    if (count <= state.threshold)
        return KeldSay(KeldFate::Ignored, "%" PRIu64 " pages are not above the threshold of %" PRIu64,
                       count, state.threshold);
    const std::uint64_t step = state.threshold * state.interval / 100;
    if (count - step < state.lastPostedCount)
        return KeldSay(KeldFate::HeldBack,
                       "%" PRIu64 " pages were posted last; posts again at %" PRIu64 ", now %" PRIu64,
                       state.lastPostedCount, state.lastPostedCount + step, count);
    KeldPost<kThresholdExceeded>(count, state.threshold);
    state.lastPostedCount = count;
}

// ---- Injected machine checks ----------------------------------------------------------------------

void ForgetOldInjections(std::uint64_t now)
{
    for (auto &[worldId, machine] : state.virtualMachines)
        std::erase_if(machine.injections,
                      [&](const auto &injection) { return injection.second + kInjectionSeconds < now; });
    std::erase_if(state.virtualMachines, [](const auto &entry) { return entry.second.injections.empty(); });
}

// A virtual machine that the host does not know, or no longer knows, is left alone.
void Kill(std::uint32_t worldId, VirtualMachineRecord *machine, std::int32_t injections, std::uint32_t page)
{
    try {
        const auto virtualMachine =
            KnxCtl::Resource::ResourceInfoImpl().GetVirtualMachineByWorldId(worldId);
        KeldPost<kKilling>(virtualMachine->GetName().c_str(), injections, page);
        machine->killed = true; // before the attempt: one that fails is not repeated
        virtualMachine->Terminate(false);
    } catch (const std::exception &failure) {
        KeldSay(KeldFate::LookUpFailed, "virtual machine %u is to be stopped: %s", worldId, failure.what());
    }
}

// Goes through the injections page by page and tests after each, so that the event shows at which injection
// the rule was met.
void KillIfPageKeptInUse(std::uint32_t worldId, VirtualMachineRecord *machine)
{
    std::int32_t count = 0;
    std::uint32_t groupPage = 0;
    std::uint64_t least = 0, greatest = 0;
    for (const auto &[page, time] : machine->injections) {
        if (count == 0 || page != groupPage) {
            groupPage = page;
            count = 1;
            least = greatest = time;
            continue;
        }
        ++count;
        least = std::min(least, time);
        greatest = std::max(greatest, time);
        if (machine->killed || count < kInjectionsToKill || greatest - least < kSpreadToKillSeconds)
            continue;
        // One attempt for each call, however many injections are left: every attempt asks the host.
        return Kill(worldId, machine, count, page);
    }
}

void KeldPageRetireCorrelatorMceInjected(Kel *kel)
{
    const std::uint64_t now = KeldNowSeconds();
    ForgetOldInjections(now);
    std::uint32_t page = 0;
    std::int32_t worldId = 0;
    if (KeldRead<kInjection>(kel, &page, &worldId) != 0) return;
    VirtualMachineRecord &its = state.virtualMachines[static_cast<std::uint32_t>(worldId)];
    its.injections.emplace(page, now);
    KeldSay(KeldFate::Counted, "%zu of %d, spread over at least %u s, for page %#x of virtual machine %d%s",
            its.injections.count(page), kInjectionsToKill, kSpreadToKillSeconds, page, worldId,
            its.killed ? ", which was told to stop" : "");
    for (auto &[id, machine] : state.virtualMachines)
        KillIfPageKeptInUse(id, &machine);
}

// ---- The platform's firmware ----------------------------------------------------------------------

void KeldPageRetireCorrelatorPlatformRequest(Kel *kel)
{
    if (ReadOption("ApeiLoggingEnabled", 126) == 0)
        return KeldSay(KeldFate::Ignored, "PageRetire/ApeiLoggingEnabled is 0");
    const char *fru = nullptr, *hardwareLog = nullptr;
    if (KeldRead<kFirmwareRequest>(kel, &fru, &hardwareLog) != 0) return;
    KeldPost<kRequestedByFirmware>(fru, hardwareLog);
}

// clang-format off
const KeldObservation kObservations[] = {
    {"kel.pageretire.selectedbutnotretired.high", kNotRetiredCount, KeldPageRetireCorrelatorNotRetired,
     "posted once while the daemon runs", {&kNotRetiredHigh}},
    {"kel.pageretire.selectedmpnthreshold.host.exceeded", kSelectedCount, KeldPageRetireCorrelatorThreshold,
     "posted above the threshold, and again for every further PageRetire/ThresholdInterval percent of it", {&kThresholdExceeded}},
    {"kel.pageretire.mce.injected", kInjection, KeldPageRetireCorrelatorMceInjected,
     {"remembered for {window}; {threshold} of one page of a virtual machine, spread over at least {spread}, post the event and stop the machine",
      KeldLimit{"window", kInjectionSeconds, "seconds"}, KeldLimit{"threshold", kInjectionsToKill}, KeldLimit{"spread", kSpreadToKillSeconds, "seconds"}},
     {&kKilling}},
    {"kel.pageretire.platform.retire.request", kFirmwareRequest, KeldPageRetireCorrelatorPlatformRequest,
     "posted while PageRetire/ApeiLoggingEnabled is not 0", {&kRequestedByFirmware}},
};
// clang-format on

} // namespace

const KeldDomain keldPageRetireDomain{
    .name = "PageRetire",
    .domains = {"pageretire"},
    .observations = kObservations,
};

void KeldCorrelator_StartPageRetire()
{
    KeldPageRetireReadSettings();
    KeldDomainRun(keldPageRetireDomain);
}

void KeldPageRetireReadSettings()
{
    if (KIF_Get(KIF_NODE_system_pageRetire_threshold, nullptr, &state.threshold, sizeof state.threshold) !=
        KNX_OK)
        KeldNotReached(kModule, 178);
    state.interval = ReadOption("ThresholdInterval", 189);
}
