// What user-space services report, and the two reports that are held off.
#include "correlatorFixture.h"
#include "keldDomains.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class UserCorrelatorTest : public CorrelatorTest {
protected:
    UserCorrelatorTest() : CorrelatorTest(keldUserDomain) {}

    void ObserveLease(const char *server)
    {
        Observe(MakeKel("kel.user.dhclient.lease.offered.noexpiry", "%s", server));
    }
    void ObserveLogDirectory(const char *configured)
    {
        Observe(MakeKel("kel.user.hsyslogd.storage.logdir.invalid", "%s %s", configured, "/scratch/log"));
    }
};

TEST_F(UserCorrelatorTest, KnowsItsSixtyThreeObservations)
{
    EXPECT_THAT(KeldDomainTable(keldUserDomain), SizeIs(63));
}

TEST_F(UserCorrelatorTest, ClassAndArgumentsFollowTheRow)
{
    Observe(MakeKel("kel.user.account.locked", "%s %d %d", "root", 900, 5));
    Observe(MakeKel("kel.user.lcon.factory.network.restored", "restored"));
    Observe(MakeKel("kel.user.coredump.unconfigured2", "none"));
    Observe(MakeKel("kel.user.coredump.configured2", "one"));
    EXPECT_THAT(Events(),
                ElementsAre("nox.audit.account.locked(root, 900, 5)",
                            "nox.audit.lcon.network.factoryrestore()",
                            "nox.problem.coredump.unconfigured2()", "nox.clear.coredump.configured2()"));
}

TEST_F(UserCorrelatorTest, WhatCannotBeReadOrIsNotKnownPostsNothing)
{
    Observe(MakeKel("kel.user.account.locked", "%s %d", "root", 900));
    Observe(MakeKel("kel.user.dhclient.lease.offered.noexpiry", "%d", 7));
    Observe(MakeKel("kel.user.dhclient.lease.offered", "%s", "10.0.0.1"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(UserCorrelatorTest, OneLeaseServerIsHeldOffFor1200Seconds)
{
    ObserveLease("10.0.0.1");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.dhclient.lease.offered.noexpiry(10.0.0.1)"));

    clock.Advance(1200);
    ObserveLease("10.0.0.1");
    EXPECT_THAT(Events(), IsEmpty());
    ObserveLease("10.0.0.2");
    EXPECT_THAT(Events(), SizeIs(1)) << "another server";

    clock.Advance(1);
    ObserveLease("10.0.0.1");
    ObserveLease("10.0.0.2");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.dhclient.lease.offered.noexpiry(10.0.0.1)"));
}

TEST_F(UserCorrelatorTest, OneLogDirectoryIsHeldOffFor90Seconds)
{
    ObserveLogDirectory("/dsfs/volumes/gone");
    EXPECT_THAT(
        Events(),
        ElementsAre("nox.problem.hsyslogd.storage.logdir.invalid(/dsfs/volumes/gone, /scratch/log)"));

    clock.Advance(90);
    ObserveLogDirectory("/dsfs/volumes/gone");
    EXPECT_THAT(Events(), IsEmpty());

    clock.Advance(1);
    ObserveLogDirectory("/dsfs/volumes/gone");
    EXPECT_THAT(Events(), SizeIs(1));
}

TEST_F(UserCorrelatorTest, AClockThatWasSetBackProlongsTheHoldOff)
{
    ObserveLease("10.0.0.1");
    clock.Set(HandClock::kStart - 86400);
    ObserveLease("10.0.0.1");
    clock.Set(HandClock::kStart + 1200);
    ObserveLease("10.0.0.1");
    EXPECT_THAT(Events(), SizeIs(1));

    clock.Set(HandClock::kStart + 1201);
    ObserveLease("10.0.0.1");
    EXPECT_THAT(Events(), SizeIs(1));
}

TEST_F(UserCorrelatorTest, Kept_TwoBlanksInTheLogDirectoryText)
{
    ObserveLogDirectory("/dsfs/volumes/gone");
    EXPECT_THAT(
        log.LinesWith("/dsfs/volumes/gone cannot be used.  The default directory /scratch/log will"),
        SizeIs(1));
}

} // namespace
