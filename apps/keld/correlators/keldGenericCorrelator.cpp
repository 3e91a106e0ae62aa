// Add-on components.
//
// Arrives    warnings, errors and information that a component reports through either of two domains.
// Remembers  nothing.
// Posts      one problem for each, whatever its severity.
// Time       none.
//
// Every other observation of the two domains leaves its trace line in the diagnostic log here, also
// those that the user-level correlator turns into events on its own thread.

#include "keldDomains.h"

#include "keldTranslation.h"

namespace {

constexpr KeldArguments kReport = Args("component:%p, link:%p, message:%p");

// The component fills the first and the third place.
constexpr KeldRowOptions kReportedBy{.shows = "0 1 0 2"};

// clang-format off
constexpr EventText kWarning =
    "@&!*@*@(nox.problem.3rdParty.warning)A 3rd party component, %s, running on NOX has reported a warning related to a problem. Please follow the knowledge base link (%s) to see the steps to remedy the problem as reported by %s. The message reported is: %s.";
constexpr EventText kError =
    "@&!*@*@(nox.problem.3rdParty.error)A 3rd party component, %s, running on NOX has reported an error. Please follow the knowledge base link (%s) to see the steps to remedy the problem as reported by %s. The message reported is: %s.";
// KEPT: "remedythe"; receivers match on this text. Information is posted as a problem, too.
constexpr EventText kInformation =
    "@&!*@*@(nox.problem.3rdParty.information)A 3rd party component, %s, running on NOX has reported an informational event. If needed, please follow the knowledge base link (%s) to see the steps to remedythe problem as reported by %s. The message reported is: %s.";

constexpr Translation kRows[] = {
    {"kel.external.warning",      kReport, kWarning,     kReportedBy},
    {"kel.external.error",        kReport, kError,       kReportedBy},
    {"kel.external.info",         kReport, kInformation, kReportedBy},
    {"kel.user.external.warning", kReport, kWarning,     kReportedBy},
    {"kel.user.external.error",   kReport, kError,       kReportedBy},
    {"kel.user.external.info",    kReport, kInformation, kReportedBy},
};
// clang-format on
static_assert(std::size(kRows) == 6 && DistinctUnder(kRows, "kel."));

} // namespace

const KeldDomain keldGenericDomain{
    .name = "Generic",
    .domains = {"user", "external"},
    .defaultHandler = KeldCorrelatorLogKel,
    .otherwise = "written to the log",
    .translations = KeldTranslations<kRows>,
};

void KeldCorrelator_StartGeneric() { KeldDomainRun(keldGenericDomain); }
