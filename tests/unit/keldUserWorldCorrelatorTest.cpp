// Crashes of user-space processes, counted and reported every ten hours, and their security policy.
#include "correlatorFixture.h"
#include "keldUserWorldCorrelator.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr std::uint64_t kTenHours = 36000;

class UserWorldCorrelatorTest : public CorrelatorTest {
protected:
    UserWorldCorrelatorTest() : CorrelatorTest(keldUserWorldDomain) { KeldPlingInit(); }

    void ObserveDump(const char *application)
    {
        Observe(MakeKel("kel.uw.core.dumped", "%s %d %s", application, 34567, "/var/core/zdump.000"));
    }
    void ObserveFailedDump(const char *application)
    {
        Observe(MakeKel("kel.uw.core.dumpFailed", "%s %d %s", application, 34567, "No space left"));
    }
    void ObserveDomainLevel(const char *name, int level)
    {
        Observe(MakeKel("kel.uw.secpolicy.domain.level.changed", "%s %d %s %u", name, level, "appDom", 7U));
    }
    void ObserveAllDomainsLevel(const char *name, int level)
    {
        Observe(MakeKel("kel.uw.secpolicy.alldomains.level.changed", "%s %d", name, level));
    }
};

TEST_F(UserWorldCorrelatorTest, CrashesAreCountedAndReportedEveryTenHours)
{
    ObserveDump("hostd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(hostd, 1, /var/core/zdump.000)"));

    ObserveDump("hostd");
    clock.Advance(3600);
    ObserveDump("hostd");
    clock.Advance(kTenHours - 3600 - 1);
    ObserveDump("hostd");
    EXPECT_THAT(Events(), IsEmpty());

    clock.Advance(1);
    ObserveDump("hostd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(hostd, 5, /var/core/zdump.000)"));

    clock.Advance(kTenHours - 1);
    ObserveDump("hostd");
    EXPECT_THAT(Events(), IsEmpty()) << "the ten hours start anew with each report";
}

TEST_F(UserWorldCorrelatorTest, ApplicationsAndKindsOfCrashAreCountedApart)
{
    ObserveDump("hostd");
    ObserveFailedDump("hostd");
    ObserveDump("snmpd");
    ObserveFailedDump("carad");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.application.core.dumped(hostd, 1, /var/core/zdump.000)",
                                      "nox.problem.application.core.dumpFailed(hostd, 1)",
                                      "nox.problem.application.core.dumped(snmpd, 1, /var/core/zdump.000)",
                                      "nox.problem.application.core.dumpFailed(carad, 1)"));
}

TEST_F(UserWorldCorrelatorTest, TheReceiversOwnCrashWaitsForTheFirstRetry)
{
    ObserveDump("/bin/carad-worker");
    EXPECT_THAT(Events(), IsEmpty());

    KeldPlingAlarmHandler();
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.carad.core.dumped(/bin/carad-worker, 1, /var/core/zdump.000)"));
}

TEST_F(UserWorldCorrelatorTest, ZumaIsReportedAtOnceUnlessTheNameHoldsCaradToo)
{
    ObserveDump("/opt/zuma/zumad");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.zuma.core.dumped(/opt/zuma/zumad, 1, /var/core/zdump.000)"));

    ObserveDump("/opt/zuma/carad");
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(log.LinesWith("An event (nox.problem.carad.core.dumped) could not be sent"), SizeIs(1));
}

TEST_F(UserWorldCorrelatorTest, Kept_ACrashAfterTheClockWasSetBackIsReported)
{
    ObserveDump("hostd");
    clock.Set(HandClock::kStart - 1);
    ObserveDump("hostd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(hostd, 1, /var/core/zdump.000)",
                            "nox.problem.application.core.dumped(hostd, 2, /var/core/zdump.000)"));
}

TEST_F(UserWorldCorrelatorTest, OnlyAPolicyThatIsNotEnforcedIsReported)
{
    ObserveDomainLevel("enforcing", 1);
    ObserveAllDomainsLevel("enforcing", 1);
    EXPECT_THAT(Events(), IsEmpty());

    ObserveDomainLevel("warning", 2);
    ObserveDomainLevel("disabled", 0);
    ObserveAllDomainsLevel("disabled", 0);
    EXPECT_THAT(Events(), ElementsAre("nox.audit.uw.secpolicy.domain.level.changed(appDom, warning)",
                                      "nox.audit.uw.secpolicy.domain.level.changed(appDom, disabled)",
                                      "nox.audit.uw.secpolicy.alldomains.level.changed(disabled)"));
}

TEST_F(UserWorldCorrelatorTest, ACrashThatCannotBeReadIsNotCounted)
{
    Observe(MakeKel("kel.uw.core.dumped", "%s %s", "hostd", "/var/core/zdump.000"));
    ObserveDump("hostd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(hostd, 1, /var/core/zdump.000)"));
}

} // namespace
