// Live migration (Skate).
//
// Arrives    the two failures that leave the host unable to migrate until somebody looks.
// Remembers  nothing.
// Posts      one problem for each.
// Time       none.

#include "keldDomains.h"

#include "keldDomain.h"

namespace {

void KeldMigrateCorrelatorListenerShutdown(Kel *kel);

constexpr KeldArguments kStatus = Args("%p", "status");

// clang-format off
constexpr EventText kListenerShutdown =
    "@&!*@*@(nox.problem.migrate.skate.server.pending.cnx.listen.socket.shutdown)The NOX host's Skate network server encountered an error while monitoring incoming network connections. Shutting down listener socket. Skates may no longer be possible with this host until Skate is manually re-enabled. Failure status: %s";

constexpr Translation kRows[] = {
    {"kel.migrate.skate.server.pending.cnx.listen.socket.shutdown", kStatus, kListenerShutdown,
     {.handler = KeldMigrateCorrelatorListenerShutdown}},
    {"kel.migrate.skate.default.heap.create.failed", Args(""),
     "@&!*@*@(nox.problem.migrate.skate.default.heap.create.failed)Failed to create default migration heap. This may be a result of severe host memory pressure, or virtual address space exhaustion. Migration may still be possible, but will be unreliable in cases of extreme host memory pressure."},
};
// clang-format on
static_assert(DistinctUnder(kRows, "kel.migrate."), "a row stands twice, or outside its domain");

void KeldMigrateCorrelatorListenerShutdown(Kel *kel)
{
    const char *status = ""; // a null text becomes null here; a read that fails leaves it
    if (KeldRead<kStatus>(kel, &status) != 0 && status != nullptr) return;
    KeldPost<kListenerShutdown>(status == nullptr ? "unknown" : status);
}

} // namespace

const KeldDomain keldMigrateDomain{
    .name = "migrate",
    .domains = {"migrate"},
    .translations = KeldTranslations<kRows>,
};

void KeldCorrelator_StartMigrate() { KeldDomainRun(keldMigrateDomain); }
