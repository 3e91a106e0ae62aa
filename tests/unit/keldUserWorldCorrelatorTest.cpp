// Crashes of user-space processes, counted and reported every ten hours, and their security policy.
#include "correlatorFixture.h"
#include "keldDomains.h"

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
        Observe(MakeKel("kel.uw.core.dumped", "%s %d %s", application, 34567, "/var/core/snmpd.000"));
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
    ObserveDump("snmpd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(snmpd, 1, /var/core/snmpd.000)"));

    ObserveDump("snmpd");
    clock.Advance(3600);
    ObserveDump("snmpd");
    clock.Advance(kTenHours - 3600 - 1);
    ObserveDump("snmpd");
    EXPECT_THAT(Events(), IsEmpty());

    clock.Advance(1);
    ObserveDump("snmpd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(snmpd, 5, /var/core/snmpd.000)"));

    clock.Advance(kTenHours - 1);
    ObserveDump("snmpd");
    EXPECT_THAT(Events(), IsEmpty()) << "the ten hours start anew with each report";
}

TEST_F(UserWorldCorrelatorTest, FailedDumpsHaveTenHoursOfTheirOwn)
{
    ObserveFailedDump("snmpd");
    clock.Advance(kTenHours - 1);
    ObserveFailedDump("snmpd");
    ObserveDump("snmpd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumpFailed(snmpd, 1)",
                            "nox.problem.application.core.dumped(snmpd, 1, /var/core/snmpd.000)"));
    clock.Advance(1);
    ObserveFailedDump("snmpd");
    ObserveDump("snmpd");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.application.core.dumpFailed(snmpd, 3)"));
}

TEST_F(UserWorldCorrelatorTest, ApplicationsAndKindsOfCrashAreCountedApart)
{
    ObserveDump("snmpd");
    ObserveFailedDump("snmpd");
    ObserveDump("ntpd");
    ObserveFailedDump("carad");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.application.core.dumped(snmpd, 1, /var/core/snmpd.000)",
                                      "nox.problem.application.core.dumpFailed(snmpd, 1)",
                                      "nox.problem.application.core.dumped(ntpd, 1, /var/core/snmpd.000)",
                                      "nox.problem.application.core.dumpFailed(carad, 1)"));
}

TEST_F(UserWorldCorrelatorTest, TheReceiversOwnCrashWaitsForTheFirstRetry)
{
    ObserveDump("/bin/carad-worker");
    EXPECT_THAT(Events(), IsEmpty());

    KeldPlingAlarmHandler();
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.carad.core.dumped(/bin/carad-worker, 1, /var/core/snmpd.000)"));
}

TEST_F(UserWorldCorrelatorTest, ZumaIsReportedAtOnceUnlessTheNameHoldsCaradToo)
{
    ObserveDump("/opt/zuma/zumad");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.zuma.core.dumped(/opt/zuma/zumad, 1, /var/core/snmpd.000)"));

    ObserveDump("/opt/zuma/carad");
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(log.LinesWith("An event (nox.problem.carad.core.dumped) could not be sent"), SizeIs(1));
}

TEST_F(UserWorldCorrelatorTest, Kept_ACrashAfterTheClockWasSetBackIsReported)
{
    ObserveDump("snmpd");
    clock.Set(HandClock::kStart - 1);
    ObserveDump("snmpd");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.application.core.dumped(snmpd, 1, /var/core/snmpd.000)",
                            "nox.problem.application.core.dumped(snmpd, 2, /var/core/snmpd.000)"));
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

TEST_F(UserWorldCorrelatorTest, WhatCannotBeReadIsNeitherCountedNorPosted)
{
    Observe(MakeKel("kel.uw.core.dumped", "%s %s", "snmpd", "/var/core/snmpd.000"));
    Observe(MakeKel("kel.uw.core.dumped", "%s %d %s", "snmpd", 34567, kNullText));
    ObserveDump(kNullText);
    Observe(MakeKel("kel.uw.core.dumpFailed", "%s %d %s", "snmpd", 34567, kNullText));
    ObserveFailedDump(kNullText);
    ObserveDomainLevel(kNullText, 0);
    Observe(MakeKel("kel.uw.secpolicy.domain.level.changed", "%s %d %s %u", "warning", 2, kNullText, 7U));
    ObserveAllDomainsLevel(kNullText, 0);
    EXPECT_THAT(Events(), IsEmpty());
    ObserveDump("snmpd");
    ObserveFailedDump("snmpd");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.application.core.dumped(snmpd, 1, /var/core/snmpd.000)",
                                      "nox.problem.application.core.dumpFailed(snmpd, 1)"));
}

} // namespace
