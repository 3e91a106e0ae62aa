// The software iSCSI initiator.
//
// Arrives    failed connections, logins and discoveries; targets that are gone; what the initiator
//            mends by itself.
// Remembers  nothing.
// Posts      a problem for each failure and each target that is gone.
// Time       none.

#include "keldDomains.h"

#include "keldDomain.h"

namespace {

constexpr KeldArguments kTarget = Args("%p %p", "*target, adapter");
constexpr KeldArguments kTargetLogin = Args("%p %p %u", "*target, adapter, loginStatus");
constexpr KeldArguments kDiscovery = Args("%p %p", "*discoveryAddress, adapter");
constexpr KeldArguments kDiscoveryLogin = Args("%p %p %u", "*discoveryAddress, adapter, loginStatus");

// clang-format off
constexpr EventText kTargetLoginError{
    "@&!*@*@(nox.problem.storage.iscsi.target.login.error)Login to iSCSI target %s on %s failed. Target returned login error of: %s.",
    "*target, adapter, loginStatus"};
constexpr EventText kDiscoveryLoginError{
    "@&!*@*@(nox.problem.storage.iscsi.discovery.login.error)iSCSI discovery to %s on %s failed. The Discovery target returned a login error of: %s.",
    "*discoveryAddress, adapter, loginStatus"};

constexpr Translation kRows[] = {
    {"kel.iscsi.target.connect.error", kTarget,
     "@&!*@*@(nox.problem.storage.iscsi.target.connect.error)Login to iSCSI target %s on %s failed. The iSCSI initiator could not establish a network connection to the target."},
    {"kel.iscsi.target.permanently.removed", kTarget,
     "@&!*@*@(nox.problem.storage.iscsi.target.permanently.removed)The target %s was permanently removed from %s."},
    {"kel.iscsi.discovery.connect.error", kDiscovery,
     "@&!*@*@(nox.problem.storage.iscsi.discovery.connect.error)iSCSI discovery to %s on %s failed. The iSCSI Initiator could not establish a network connection to the discovery address."},
    {"kel.iscsi.isns.discovery.error", Args("%p %p %p %p", "*server, adapter, error, detail"),
     "@&!*@*@(nox.problem.storage.iscsi.isns.discovery.error)iSns discovery to %s on %s failed. (%s : %s)."},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.iscsi."), "a row stands twice, or outside its domain");

// The status is shown as the protocol's documents write it: class and detail, two digits each.
template <const KeldArguments &kArguments, const EventText &kText>
void KeldIscsiCorrelatorLoginError(Kel *kel)
{
    const char *peer = nullptr, *adapter = nullptr;
    std::uint32_t loginStatus = 0;
    if (KeldRead<kArguments>(kel, &peer, &adapter, &loginStatus) != 0) return;
    // KEPT: a status of more than four digits loses its last ones, not its first; receivers match on four.
    char text[5];
    (void)std::snprintf(text, sizeof text, "%04x", loginStatus);
    KeldPost<kText>(peer, adapter, text);
}

constexpr const char *kMended = "ignored on purpose: the initiator recovers by itself";

// clang-format off
constexpr KeldObservation kObservations[] = {
    {"kel.iscsi.target.login.error", kTargetLogin, KeldIscsiCorrelatorLoginError<kTargetLogin, kTargetLoginError>,
     "posted with the status as four hexadecimal digits", {&kTargetLoginError}},
    {"kel.iscsi.discovery.login.error", kDiscoveryLogin, KeldIscsiCorrelatorLoginError<kDiscoveryLogin, kDiscoveryLoginError>,
     "posted with the status as four hexadecimal digits", {&kDiscoveryLoginError}},
    {"kel.iscsi.connection.started",         Args(""), KeldCorrelatorIgnore, kMended},
    {"kel.iscsi.connection.stopped",         Args(""), KeldCorrelatorIgnore, kMended},
    {"kel.iscsi.connection.error",           Args(""), KeldCorrelatorIgnore, kMended},
    {"kel.iscsi.session.recovery.timeout",   Args(""), KeldCorrelatorIgnore, kMended},
    {"kel.iscsi.target.async.event",         Args(""), KeldCorrelatorIgnore, kMended},
};
// clang-format on

} // namespace

const KeldDomain keldIscsiDomain{
    .name = "iscsi",
    .domains = {"iscsi"},
    .translations = KeldTranslations<kRows>,
    .observations = kObservations,
};

void KeldCorrelator_StartiScsi() { KeldDomainRun(keldIscsiDomain); }
