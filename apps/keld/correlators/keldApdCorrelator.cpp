// All paths down.
//
// Arrives    a device or file system enters or leaves the state, or has been in it for too long.
// Remembers  nothing.
// Posts      a problem for the state and for its time-out, a clear for its end.
// Time       none.

#include "keldDomains.h"

#include "keldDomain.h"

namespace {

constexpr KeldArguments kIdentifier = Indexed("%p", "*identifier");

// clang-format off
constexpr Translation kRows[] = {
    {"kel.storage.apd.start", kIdentifier,
     "@&!*@*@(nox.problem.storage.apd.start)Device or filesystem with identifier [%s] has entered the All Paths Down state."},
    {"kel.storage.apd.exit", kIdentifier,
     "@&!*@*@(nox.clear.storage.apd.exit)Device or filesystem with identifier [%s] has exited the All Paths Down state.",
     {.pairing = {"nox.problem.storage.apd.start, nox.problem.storage.apd.timeout", "identifier"}}},
    {"kel.storage.apd.timeout", Indexed("%p %d", "*identifier, seconds"),
     "@&!*@*@(nox.problem.storage.apd.timeout)Device or filesystem with identifier [%s] has entered the All Paths Down Timeout state after being in the All Paths Down state for %d seconds. I/Os will now be fast failed."},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.storage.apd."), "a row stands twice, or outside its domain");

} // namespace

const KeldDomain keldApdDomain{
    .name = "APD",
    .domains = {"storage.apd"},
    .defaultHandler = KeldCorrelatorLogUnknown,
    .otherwise = "named in the log",
    .translations = KeldTranslations<kRows>,
};

void KeldCorrelator_StartAPD() { KeldDomainRun(keldApdDomain); }
