// User-space processes of the host (UserWorlds).
//
// Arrives    crashes, with or without a core file; changes of the security policy's enforcement level.
// Remembers  per application, for each of the two kinds of crash: how many so far, when last reported.
// Posts      a problem for a crash, with events of their own for carad and zuma; an audit for a policy
//            that is no longer enforced.
// Time       one report per application and kind in ten hours; crashes in between are only counted.
//
// carad receives the events. The event about its own crash is not sent to it now but kept for the
// first retry, when it should be back.

#include "keldDomains.h"

#include "keldDomain.h"
#include "keldHoldOff.h"

#include <map>
#include <string>
#include <string_view>

namespace {

constexpr std::int32_t kLevelEnforcing = 1;

constexpr KeldArguments kDumped = Args("%p %d %p", "*application, process, coreFile");
constexpr KeldArguments kDumpFailed = Args("%p %d %p", "*application, process, reason");
constexpr KeldArguments kDomainLevel = Args("%p %d %p %u", "levelName, level, *domain, domainId");
constexpr KeldArguments kAllDomainsLevel = Args("%p %d", "levelName, level");

// clang-format off
constexpr EventText kApplicationDumped{
    "@&!*@*@(nox.problem.application.core.dumped)An application (%s) running on NOX host has crashed (%d time(s) so far). A core file may have been created at %s.",
    "*application, crashes, coreFile"};
constexpr EventText kCaradDumped{
    "@&!*@*@(nox.problem.carad.core.dumped)%s crashed (%d time(s) so far) and a core file may have been created at %s. This may have caused connections to the host to be dropped.",
    "*application, crashes, coreFile"};
constexpr EventText kZumaDumped{
    "@&!*@*@(nox.problem.zuma.core.dumped)%s crashed (%d time(s) so far) and a core file may have been created at %s. This may have caused connections to the host to be dropped.",
    "*application, crashes, coreFile"};
constexpr EventText kApplicationDumpFailed{
    "@&!*@*@(nox.problem.application.core.dumpFailed)An application (%s) running on NOX host has crashed (%d time(s) so far), but core dump creation failed.",
    "*application, crashes"};
constexpr EventText kDomainLevelChanged{
    "@&!*@*@(nox.audit.uw.secpolicy.domain.level.changed)The enforcement level for security domain %s has been changed to %s. The enforcement level must always be set to enforcing.",
    "*domain, levelName"};
constexpr EventText kAllDomainsLevelChanged{
    "@&!*@*@(nox.audit.uw.secpolicy.alldomains.level.changed)The enforcement level for all security domains has been changed to %s. The enforcement level must always be set to enforcing.",
    "levelName"};
// clang-format on

struct CrashRecord {
    std::uint64_t reported = 0; // seconds since the epoch
    std::int32_t count = 0;     // since the daemon started
};
using CrashRecords = std::map<std::string, CrashRecord>; // by application name

struct State {
    CrashRecords dumped, dumpFailed;
};
State &state = *new State;

// Counts one crash: how many there were so far, or 0 when the application was reported not long ago.
std::int32_t CountCrash(CrashRecords &records, const char *application)
{
    const std::uint64_t now = KeldNowSeconds();
    CrashRecord &record = records[application];
    const bool first = ++record.count == 1; // reported whatever the clock says
    if (!first && !kCrashHoldOff.IsOver(application, record.reported, now)) return 0;
    record.reported = now;
    return record.count;
}

// The names are looked for anywhere in the application's: what carries "carad" or "zuma" in its name is
// taken for a part of it.
void KeldUserWorldCorrelatorCoreDumped(Kel *kel)
{
    const char *application = nullptr, *coreFile = nullptr;
    std::int32_t process = 0;
    if (KeldRead<kDumped>(kel, &application, &process, &coreFile) != 0) return;
    const std::int32_t crashes = CountCrash(state.dumped, application);
    if (crashes == 0) return;
    const std::string_view name = application;
    if (name.find("carad") != name.npos)
        KeldPost<kCaradDumped, 1>(application, crashes, coreFile);
    else if (name.find("zuma") != name.npos)
        KeldPost<kZumaDumped>(application, crashes, coreFile);
    else
        KeldPost<kApplicationDumped>(application, crashes, coreFile);
}

// Why there is no core file does not matter here, and may be null. A read that fails leaves all null.
void KeldUserWorldCorrelatorCoreDumpFailed(Kel *kel)
{
    const char *application = nullptr, *reason = nullptr;
    std::int32_t process = 0;
    (void)KeldRead<kDumpFailed>(kel, &application, &process, &reason);
    if (application == nullptr) return;
    const std::int32_t crashes = CountCrash(state.dumpFailed, application);
    if (crashes != 0) KeldPost<kApplicationDumpFailed>(application, crashes);
}

bool IsEnforcing(std::int32_t level)
{
    if (level != kLevelEnforcing) return false;
    KeldSay(KeldFate::Ignored, "the new level is %d, enforcing", level);
    return true;
}

void KeldUserWorldCorrelatorDomainLevelChanged(Kel *kel)
{
    const char *levelName = nullptr, *domain = nullptr;
    std::int32_t level = 0;
    std::uint32_t domainId = 0;
    if (KeldRead<kDomainLevel>(kel, &levelName, &level, &domain, &domainId) != 0) return;
    if (IsEnforcing(level)) return;
    KeldPost<kDomainLevelChanged>(domain, levelName);
}

void KeldUserWorldCorrelatorAllDomainsLevelChanged(Kel *kel)
{
    const char *levelName = nullptr;
    std::int32_t level = 0;
    if (KeldRead<kAllDomainsLevel>(kel, &levelName, &level) != 0) return;
    if (IsEnforcing(level)) return;
    KeldPost<kAllDomainsLevelChanged>(levelName);
}

// clang-format off
constexpr KeldNote kDumpedNote{
    "counted, and posted at most once in {holdOff} per application: an application with carad in its name as the carad event, delivered with the next retry; one with zuma as the zuma event",
    kCrashHoldOff};
constexpr KeldNote kDumpFailedNote{"counted, and posted at most once in {holdOff} per application", kCrashHoldOff};
constexpr KeldNote kLevelNote{"posted unless the new level is {enforcing}, enforcing", KeldLimit{"enforcing", kLevelEnforcing}};

constexpr KeldObservation kObservations[] = {
    {"kel.uw.core.dumped",                        kDumped,          KeldUserWorldCorrelatorCoreDumped,             kDumpedNote, {&kApplicationDumped, &kCaradDumped, &kZumaDumped}},
    {"kel.uw.core.dumpFailed",                    kDumpFailed,      KeldUserWorldCorrelatorCoreDumpFailed,         kDumpFailedNote, {&kApplicationDumpFailed}},
    {"kel.uw.secpolicy.domain.level.changed",     kDomainLevel,     KeldUserWorldCorrelatorDomainLevelChanged,     kLevelNote, {&kDomainLevelChanged}},
    {"kel.uw.secpolicy.alldomains.level.changed", kAllDomainsLevel, KeldUserWorldCorrelatorAllDomainsLevelChanged, kLevelNote, {&kAllDomainsLevelChanged}},
};
// clang-format on

} // namespace

const KeldDomain keldUserWorldDomain{
    .name = "UserWorld",
    .domains = {"uw"},
    .observations = kObservations,
};

void KeldCorrelator_StartUW() { KeldDomainRun(keldUserWorldDomain); }
