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

#include "keldDomain.h"

namespace {

constexpr KeldArguments kReport = Args("%p %p %p", "*component, link, message");

// The component fills the first and the third place.
constexpr KeldNames kShown = "*component, link, component, message";

// clang-format off
constexpr EventText kWarning{
    "@&!*@*@(nox.problem.3rdParty.warning)A 3rd party component, %s, running on NOX has reported a warning related to a problem. Please follow the knowledge base link (%s) to see the steps to remedy the problem as reported by %s. The message reported is: %s.",
    kShown};
constexpr EventText kError{
    "@&!*@*@(nox.problem.3rdParty.error)A 3rd party component, %s, running on NOX has reported an error. Please follow the knowledge base link (%s) to see the steps to remedy the problem as reported by %s. The message reported is: %s.",
    kShown};
// KEPT: "remedythe"; receivers match on this text. Information is posted as a problem, too.
constexpr EventText kInformation{
    "@&!*@*@(nox.problem.3rdParty.information)A 3rd party component, %s, running on NOX has reported an informational event. If needed, please follow the knowledge base link (%s) to see the steps to remedythe problem as reported by %s. The message reported is: %s.",
    kShown};
// clang-format on

template <const EventText &kText> void KeldGenericCorrelatorReport(Kel *kel)
{
    const char *component = nullptr, *link = nullptr, *message = nullptr;
    if (KeldRead<kReport>(kel, &component, &link, &message) != 0) return;
    KeldPost<kText>(component, link, component, message);
}

// clang-format off
constexpr KeldObservation kObservations[] = {
    {"kel.external.warning",      kReport, KeldGenericCorrelatorReport<kWarning>,     "", {&kWarning}},
    {"kel.external.error",        kReport, KeldGenericCorrelatorReport<kError>,       "", {&kError}},
    {"kel.external.info",         kReport, KeldGenericCorrelatorReport<kInformation>, "", {&kInformation}},
    {"kel.user.external.warning", kReport, KeldGenericCorrelatorReport<kWarning>,     "", {&kWarning}},
    {"kel.user.external.error",   kReport, KeldGenericCorrelatorReport<kError>,       "", {&kError}},
    {"kel.user.external.info",    kReport, KeldGenericCorrelatorReport<kInformation>, "", {&kInformation}},
};
// clang-format on
static_assert(DistinctUnder(kObservations, "kel."), "a row stands twice, or outside its domain");

} // namespace

const KeldDomain keldGenericDomain{
    .name = "Generic",
    .domains = {"user", "external"},
    .defaultHandler = KeldCorrelatorLogKel,
    .otherwise = "written to the log",
    .observations = kObservations,
};

void KeldCorrelator_StartGeneric() { KeldDomainRun(keldGenericDomain); }
