// Virtual machines powered off by the kernel.
//
// Arrives    one observation for each, with the reason and the configuration file.
// Remembers  nothing.
// Posts      one problem for each.
// Time       none.
//
// A virtual machine that is gone is worth an event even when the details cannot be read: they are then
// posted as null texts and zeros.

#include "keldDomains.h"

#include "keldDomain.h"

namespace {

// clang-format off
constexpr KeldArguments kUserWorldFault =
    ByMessage("The virtual machine using the configuration file %s could not fault in a page for the virtual machine user world. The virtual machine has been powered off.", "*path");
constexpr EventText kUserWorldFaultFailure(
    "@&!*@*@(nox.problem.vm.kill.unexpected.vmp.fault.failure.2)%s could not fault in a page. The VM is terminated as further progress is impossible.");

constexpr KeldArguments kLowMemory =
    ByMessage("The virtual machine using the configuration file %s has been powered off to prevent system instability. See the kernel log file for more details.", "*path");
constexpr EventText kTooManyPages(
    "@&!*@*@(nox.problem.vm.kill.unexpected.vmtrack.2)%s is allocating too many pages while system is critically low in free memory. It is forcefully terminated to prevent system instability.");

constexpr KeldArguments kRetiredPage =
    ByMessage("The virtual machine using the configuration file %s contains the host physical page %#lx that was scheduled for immediate retirement. To avoid system instability, the virtual machine has been powered off.", "*path, page");
constexpr EventText kContainedRetiredPage(
    "@&!*@*@(nox.problem.vm.kill.unexpected.forcefulPageRetire.64.2)%s contained the host physical page %#lx which was scheduled for immediate retirement. To avoid system instability the virtual machine is forcefully powered off.");

constexpr KeldArguments kSwapActions =
    ByMessage("The virtual machine using the configuration file %s did not respond to %u swap actions in %lu seconds. To avoid system instability, the virtual machine has been powered off.", "*path, swapActions, seconds");
constexpr EventText kNoSwapResponse(
    "@&!*@*@(nox.problem.vm.kill.unexpected.noSwapResponse.2)%s did not respond to %u swap actions in %u seconds and is forcefully powered off to prevent system instability.",
    "*path, swapActions, seconds");

constexpr KeldArguments kSwapFile =
    ByMessage("The virtual machine using the configuration file %s could not fault in a page from the swap file at %s. The virtual machine has been powered off.", "*path, swapFile");
constexpr EventText kFaultFailure(
    "@&!*@*@(nox.problem.vm.kill.unexpected.fault.failure.2)%s could not fault in a guest physical page from the hypervisor level swap file on %s. The VM is terminated as further progress is impossible.",
    "*path, datastore");
// clang-format on

// All that the reason is about is the path.
template <const KeldArguments &kArguments, const EventText &kText> void KeldVmCorrelatorPath(Kel *kel)
{
    const char *path = nullptr;
    (void)KeldRead<kArguments>(kel, &path);
    KeldPost<kText>(path);
}

void KeldVmCorrelatorForcefulPageRetire(Kel *kel)
{
    const char *path = nullptr;
    std::uint64_t page = 0;
    (void)KeldRead<kRetiredPage>(kel, &path, &page);
    KeldPost<kContainedRetiredPage>(path, page);
}

void KeldVmCorrelatorNoSwapResponse(Kel *kel)
{
    const char *path = nullptr;
    std::uint32_t swapActions = 0;
    std::uint64_t seconds = 0;
    (void)KeldRead<kSwapActions>(kel, &path, &swapActions, &seconds);
    // KEPT: receivers take the seconds for a number of 32 bits.
    KeldPost<kNoSwapResponse>(path, swapActions, static_cast<std::uint32_t>(seconds));
}

void KeldVmCorrelatorFaultFailure(Kel *kel)
{
    const char *path = nullptr, *swapFile = nullptr;
    (void)KeldRead<kSwapFile>(kel, &path, &swapFile);
    KeldPost<kFaultFailure>(path, KeldLookupDatastore(swapFile).c_str());
}

// clang-format off
constexpr Translation kRows[] = {
    {"kel.vm.kill.unexpected.vmp.fault.failure",     kUserWorldFault, kUserWorldFaultFailure, {.handler = KeldVmCorrelatorPath<kUserWorldFault, kUserWorldFaultFailure>}},
    {"kel.vm.kill.unexpected.vmtrack",               kLowMemory,      kTooManyPages,          {.handler = KeldVmCorrelatorPath<kLowMemory, kTooManyPages>}},
    {"kel.vm.kill.unexpected.forcefulPageRetire.64", kRetiredPage,    kContainedRetiredPage,  {.handler = KeldVmCorrelatorForcefulPageRetire}},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.vm.kill.unexpected."), "a row stands twice, or outside its domain");

const KeldObservation kObservations[] = {
    {"kel.vm.kill.unexpected.noSwapResponse",
     kSwapActions,
     KeldVmCorrelatorNoSwapResponse,
     "posted at once, the seconds as a number of 32 bits",
     {&kNoSwapResponse}},
    {"kel.vm.kill.unexpected.fault.failure",
     kSwapFile,
     KeldVmCorrelatorFaultFailure,
     "posted at once with the datastore of the swap file",
     {&kFaultFailure}},
};

} // namespace

const KeldDomain keldVmDomain{
    .name = "VM",
    .domains = {"vm"},
    .defaultHandler = KeldCorrelatorLogUnknown,
    .otherwise = "reported in the log as unknown",
    .translations = KeldTranslations<kRows>,
    .observations = kObservations,
};

void KeldCorrelator_StartVM() { KeldDomainRun(keldVmDomain); }
