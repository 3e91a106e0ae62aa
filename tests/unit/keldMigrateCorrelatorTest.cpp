// Live migration: two problems, each time they are observed.
#include "correlatorFixture.h"
#include "keldDomains.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char *kListenerShutdown = "kel.migrate.skate.server.pending.cnx.listen.socket.shutdown";

class MigrateCorrelatorTest : public CorrelatorTest {
protected:
    MigrateCorrelatorTest() : CorrelatorTest(keldMigrateDomain) {}
};

TEST_F(MigrateCorrelatorTest, EveryObservationIsAProblemAndANullStatusIsUnknown)
{
    const char *none = nullptr;
    Observe(MakeKel(kListenerShutdown, "%s", "Connection reset"));
    Observe(MakeKel(kListenerShutdown, "%s", "Connection reset"));
    Observe(MakeKel(kListenerShutdown, "%s", none));
    Observe(MakeKel("kel.migrate.skate.default.heap.create.failed", "no heap"));
    EXPECT_THAT(
        Events(),
        ElementsAre("nox.problem.migrate.skate.server.pending.cnx.listen.socket.shutdown(Connection reset)",
                    "nox.problem.migrate.skate.server.pending.cnx.listen.socket.shutdown(Connection reset)",
                    "nox.problem.migrate.skate.server.pending.cnx.listen.socket.shutdown(unknown)",
                    "nox.problem.migrate.skate.default.heap.create.failed()"));
}

TEST_F(MigrateCorrelatorTest, WhatCannotBeReadOrIsNotKnownLeavesNoTrace)
{
    Observe(MakeKel(kListenerShutdown, "%d", 104));
    EXPECT_THAT(log.Lines(), testing::SizeIs(1)) << "the observation's own trace line";
    Observe(MakeKel("kel.migrate.skate.started", "started"));
    EXPECT_THAT(log.Lines(), testing::SizeIs(1));
    EXPECT_THAT(Events(), IsEmpty());
}

} // namespace
