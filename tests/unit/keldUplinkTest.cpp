// Uplink tracking: bursts of observations of one NIC and what becomes of them.

#include "keldUplink.h"
#include "correlatorFixture.h"
#include "keldAlarm.h"
#include "keldDomains.h"

#include <algorithm>
#include <functional>
#include <poll.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::SizeIs;

// A host with two standard switches. Management, Migration and Production are on vSwitch0, Backup on
// vSwitch1; no port group is called Lab.
class UplinkTest : public CorrelatorTest {
protected:
    UplinkTest() : CorrelatorTest(keldNetDomain)
    {
        for (const char *portGroup : {"Management", "Migration", "Production"})
            runDir.Host(std::string("net/portgroups/") + portGroup, "vSwitch0");
        runDir.Host("net/portgroups/Backup", "vSwitch1");
        for (const char *nic : {"vmnic0", "vmnic1"})
            runDir.HostDirectory(std::string("kernel/nodes/net/pNics/") + nic);
        wakeFd = KeldUplinkInit();
    }

    void PgDown(const char *nic, const char *portGroup, int uplinksLeft)
    {
        Observe(
            MakeKel("kel.net.pg.uplink.transition.down", "%s %s %d %d", nic, portGroup, uplinksLeft, 4));
    }
    void PgUp(const char *nic, const char *portGroup, int uplinksUp)
    {
        Observe(MakeKel("kel.net.pg.uplink.transition.up", "%s %s %d", nic, portGroup, uplinksUp));
    }
    void DvDown(const char *nic, const char *port, int uplinksLeft)
    {
        Observe(MakeKel("kel.net.dvport.uplink.transition.down", "%s %s %s %d %d", nic, "dvs", port,
                        uplinksLeft, 4));
    }
    void DvUp(const char *nic, const char *port, int uplinksUp)
    {
        Observe(MakeKel("kel.net.dvport.uplink.transition.up", "%s %s %s %d", nic, "dvs", port, uplinksUp));
    }
    void LinkDownOf(const char *nic) { Observe(MakeKel("kel.net.vmnic.linkstate.down", "%s", nic)); }
    void LinkUpOf(const char *nic) { Observe(MakeKel("kel.net.vmnic.linkstate.up", "%s", nic)); }
    void Watchdog(const char *nic) { Observe(MakeKel("kel.net.uplink.watchdog.timeout", "%s", nic)); }

    // What a wake-up so much later posts.
    Lines After(std::uint64_t seconds)
    {
        clock.Advance(seconds);
        ProcessUplinkTimeouts();
        return Events();
    }

    // Seconds until the wake-up alarm; 0 when it is not armed. Disarms it.
    std::uint32_t TakeAlarm()
    {
        std::uint32_t remaining = 0;
        EXPECT_EQ(0, KeldAlarmSet(kWakeAlarm, kKeldAlarmOneShot, 0, &remaining));
        return remaining;
    }

    static constexpr int kWakeAlarm = 0; // the first that the process registers
    int wakeFd = -1;
};

// ---- Batches going down ---------------------------------------------------------------------------

TEST_F(UplinkTest, PortGroupsThatGoDownTogetherAreReportedByWhatIsLeft)
{
    PgDown("vmnic0", "Management", 1);
    PgDown("vmnic0", "Production", 0);
    PgDown("vmnic0", "Backup", -1);
    EXPECT_THAT(After(1), IsEmpty());
    PgDown("vmnic0", "Lab", 3);
    PgDown("vmnic0", "Migration", 0);
    EXPECT_THAT(After(1),
                ElementsAre("nox.problem.net.connectivity.lost(vSwitch0, vmnic0, Production, Migration)",
                            "nox.problem.net.redundancy.lost(vSwitch0, vmnic0, Management)",
                            "nox.problem.net.redundancy.degraded(vSwitch0, vmnic0, Lab)"));
    EXPECT_THAT(After(100), IsEmpty());
}

TEST_F(UplinkTest, DvPortsThatGoDownTogetherAreReportedByWhatIsLeft)
{
    DvDown("vmnic0", "8", 2);
    DvDown("vmnic0", "9", 1);
    DvDown("vmnic0", "10", 0);
    DvDown("vmnic0", "11", -1);
    DvDown("vmnic0", "12", 1);
    EXPECT_THAT(After(2), ElementsAre("nox.problem.net.dvport.connectivity.lost(dvs/10, vmnic0)",
                                      "nox.problem.net.dvport.redundancy.lost(dvs/9, dvs/12, vmnic0)",
                                      "nox.problem.net.dvport.redundancy.degraded(dvs/8, vmnic0)"));
}

TEST_F(UplinkTest, EachNicHasABatchAndATimeOfItsOwn)
{
    PgDown("vmnic1", "Management", 1);
    clock.Advance(1);
    PgDown("vmnic0", "Management", 0);
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.redundancy.lost(vSwitch0, vmnic1, Management)"));
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.connectivity.lost(vSwitch0, vmnic0, Management)"));
}

// The batch is not dropped, and nothing else makes the NIC's later port groups known; its link states do.
TEST_F(UplinkTest, Kept_ABatchStaysWhenItsSwitchCannotBeFound)
{
    runDir.Host("net/portgroups/Nameless", "");
    PgDown("vmnic0", "Lab", 0);
    PgDown("vmnic1", "Nameless", 0);
    PgUp("vmnic0", "Lab", 1);
    EXPECT_THAT(After(2), IsEmpty());

    PgDown("vmnic0", "Production", 0);
    LinkDownOf("vmnic0");
    EXPECT_THAT(After(2), ElementsAre("nox.problem.net.vmnic.linkstate.down(vmnic0)"));
}

// ---- Batches coming up ----------------------------------------------------------------------------

TEST_F(UplinkTest, AnUpBatchGoesByItsFirstEntryEvenWhenThatIsIgnored)
{
    PgDown("vmnic0", "Production", 0);
    After(2);
    PgUp("vmnic0", "Lab", 0);
    PgUp("vmnic0", "Production", 1);
    EXPECT_THAT(After(2), IsEmpty());
}

TEST_F(UplinkTest, PortGroupsThatComeUpTogetherAreReportedByWhatIsBack)
{
    PgDown("vmnic0", "Management", 1);
    PgDown("vmnic0", "Production", 0);
    After(2);
    PgUp("vmnic0", "Production", 1);
    PgUp("vmnic0", "Management", 2);
    PgUp("vmnic0", "Backup", 0);
    PgUp("vmnic0", "Migration", 1);
    EXPECT_THAT(After(2),
                ElementsAre("nox.clear.net.connectivity.restored(vSwitch0, Production, Migration, vmnic0)",
                            "nox.clear.net.redundancy.restored(vSwitch0, Management, vmnic0)"));
}

TEST_F(UplinkTest, DvPortsThatComeUpTogetherAreReportedByWhatIsBack)
{
    DvDown("vmnic0", "8", 0);
    DvDown("vmnic0", "9", 1);
    After(2);
    DvUp("vmnic0", "9", 3);
    DvUp("vmnic0", "7", 0);
    DvUp("vmnic0", "8", 1);
    EXPECT_THAT(After(2), ElementsAre("nox.clear.net.dvport.connectivity.restored(dvs/8, vmnic0)",
                                      "nox.clear.net.dvport.redundancy.restored(dvs/9, vmnic0)"));
}

TEST_F(UplinkTest, Kept_ConnectivityThatComesBackWhileAnotherNicHasLostSomeIsNeverNamed)
{
    PgDown("vmnic0", "Production", 0);
    DvDown("vmnic1", "8", 0);
    After(2);
    PgUp("vmnic0", "Production", 1);
    EXPECT_THAT(After(2), IsEmpty());
    DvUp("vmnic1", "8", 1);
    EXPECT_THAT(After(2), ElementsAre("nox.clear.net.dvport.connectivity.restored(dvs/8, vmnic1)"))
        << "what was held back before is not named";

    PgDown("vmnic0", "Production", 0);
    After(2);
    DvUp("vmnic1", "8", 1);
    EXPECT_THAT(After(2), IsEmpty()) << "a lost port group holds DVPorts back, too";
}

TEST_F(UplinkTest, Kept_RestoredRedundancyIsGatheredUntilNoneIsLost)
{
    PgDown("vmnic0", "Production", 1);
    PgDown("vmnic1", "Backup", 1);
    DvDown("vmnic1", "8", 1);
    After(2);
    PgUp("vmnic0", "Production", 2);
    EXPECT_THAT(After(2), IsEmpty());
    PgUp("vmnic1", "Backup", 2);
    EXPECT_THAT(After(2),
                ElementsAre("nox.clear.net.redundancy.restored(vSwitch1, Production, Backup, vmnic1)"))
        << "of all NICs, under the switch of the last batch";
    DvUp("vmnic1", "8", 2);
    EXPECT_THAT(After(2), ElementsAre("nox.clear.net.dvport.redundancy.restored(dvs/8, vmnic1)"));
}

TEST_F(UplinkTest, TheRedundancyOfDvPortsWaitsForPortGroupsAndEndsThoseOfItsNic)
{
    PgDown("vmnic0", "Production", 1);
    After(2);
    DvUp("vmnic1", "8", 2);
    EXPECT_THAT(After(2), IsEmpty());
    DvUp("vmnic0", "9", 2);
    EXPECT_THAT(After(2), ElementsAre("nox.clear.net.dvport.redundancy.restored(dvs/8, dvs/9, vmnic0)"));
}

TEST_F(UplinkTest, Kept_OnlyTheRedundancyOfDvPortsIsBackRecently)
{
    PgUp("vmnic0", "Production", 2);
    DvUp("vmnic0", "8", 2);
    EXPECT_EQ(2U, After(2).size());
    EXPECT_THAT(log.LinesWith("vmnic0 is up recently"), ElementsAre(HasSubstr("on DVPorts: dvs/8.")));
}

TEST_F(UplinkTest, APortGroupComesBackThroughAnotherNic)
{
    PgDown("vmnic0", "Production", 0);
    PgDown("vmnic0", "Management", 1);
    After(2);
    PgUp("vmnic1", "Production", 1);
    PgUp("vmnic1", "Management", 2);
    EXPECT_THAT(After(2), ElementsAre("nox.clear.net.connectivity.restored(vSwitch0, Production, vmnic1)",
                                      "nox.clear.net.redundancy.restored(vSwitch0, Management, vmnic1)"));
}

// A DVPort's label is looked for among the port groups; among the DVPorts only the NIC counts.
TEST_F(UplinkTest, Kept_ADvPortDoesNotComeBackThroughAnotherNicButAPortGroupOfItsNameDoes)
{
    runDir.Host("net/portgroups/dvs%2F8", "vSwitch0");
    DvDown("vmnic0", "8", 0);
    PgDown("vmnic0", "dvs/8", 0);
    DvDown("vmnic0", "9", 1);
    After(2);
    DvUp("vmnic1", "8", 1);
    DvUp("vmnic1", "9", 2);
    EXPECT_THAT(After(2), IsEmpty());
}

// ---- Link states ----------------------------------------------------------------------------------

TEST_F(UplinkTest, ALinkStateAloneIsReportedAfterASecond)
{
    LinkDownOf("vmnic0");
    EXPECT_THAT(After(0), IsEmpty());
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.vmnic.linkstate.down(vmnic0)"));
    LinkUpOf("vmnic0");
    EXPECT_THAT(After(1), ElementsAre("nox.clear.net.vmnic.linkstate.up(vmnic0)"));
}

// Both orders: the batch is open when the link state arrives, or when it comes due.
TEST_F(UplinkTest, ALinkStateBesideABatchOfItsDirectionIsNotReported)
{
    const std::function<void()> linkDown = [&] { LinkDownOf("vmnic0"); };
    const std::function<void()> linkUp = [&] { LinkUpOf("vmnic0"); };
    const std::function<void()> pairs[][2] = {{linkDown, [&] { PgDown("vmnic0", "Production", 2); }},
                                              {linkDown, [&] { DvDown("vmnic0", "8", 2); }},
                                              {linkUp, [&] { PgUp("vmnic0", "Production", 2); }},
                                              {linkUp, [&] { DvUp("vmnic0", "8", 2); }}};
    for (const auto &[link, batch] : pairs) {
        batch();
        link();
        EXPECT_THAT(After(2), ElementsAre(Not(HasSubstr("linkstate")))) << "on arrival";
        link();
        batch();
        EXPECT_THAT(After(2), ElementsAre(Not(HasSubstr("linkstate")))) << "on due";
    }
}

TEST_F(UplinkTest, ALinkStateBesideABatchOfTheOtherDirectionIsReported)
{
    PgDown("vmnic0", "Production", 0);
    LinkUpOf("vmnic0");
    EXPECT_THAT(After(1), ElementsAre("nox.clear.net.vmnic.linkstate.up(vmnic0)"));
    DvUp("vmnic0", "8", 0);
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.connectivity.lost(vSwitch0, vmnic0, Production)"));
    LinkDownOf("vmnic0");
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.vmnic.linkstate.down(vmnic0)"));
}

// ---- The watchdog ---------------------------------------------------------------------------------

TEST_F(UplinkTest, DownAndUpWithinAWatchdogTimeoutAreOneTransientFailure)
{
    Watchdog("vmnic0");
    PgDown("vmnic0", "Production", 0);
    clock.Advance(3);
    PgUp("vmnic0", "Production", 1);
    EXPECT_THAT(After(3), IsEmpty());
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.vmnic.watchdog.reset(vmnic0)"));
    PgDown("vmnic0", "Production", 0);
    EXPECT_EQ(1U, After(2).size()) << "the NIC is tracked as before";
}

// The watchdog's record is older than the link's and is seen first; the link's is still reported.
TEST_F(UplinkTest, ALinkUpThatWaitsWithTheWatchdogMakesAFailureTransient)
{
    Watchdog("vmnic0");
    DvDown("vmnic0", "8", 0);
    clock.Advance(6);
    LinkUpOf("vmnic0");
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.vmnic.watchdog.reset(vmnic0)",
                                      "nox.clear.net.vmnic.linkstate.up(vmnic0)"));
}

TEST_F(UplinkTest, Kept_ATransientFailureIsAProblemAndEndsAllThatWaits)
{
    Watchdog("vmnic0");
    clock.Advance(7);
    LinkDownOf("vmnic0");
    LinkUpOf("vmnic0");
    EXPECT_THAT(After(0), ElementsAre("nox.problem.net.vmnic.watchdog.reset(vmnic0)"));
}

// The up batch of DVPorts is left, and reports itself: what was lost before the reset is restored.
TEST_F(UplinkTest, Kept_DvPortsThatCameUpAreReportedDespiteATransientFailure)
{
    DvDown("vmnic0", "8", 0);
    After(2);
    Watchdog("vmnic0");
    DvDown("vmnic0", "9", 0);
    clock.Advance(6);
    DvUp("vmnic0", "8", 1);
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.vmnic.watchdog.reset(vmnic0)"));
    EXPECT_THAT(After(1), ElementsAre("nox.clear.net.dvport.connectivity.restored(dvs/8, vmnic0)"));
}

// One kind of batch is dropped for each direction, port groups first; for DVPorts that came up it is the
// down batch, once more.
TEST_F(UplinkTest, Kept_DvPortsThatCameUpEndTheDownBatchUnlessPortGroupsCameUp)
{
    Watchdog("vmnic0");
    Watchdog("vmnic1");
    clock.Advance(6);
    for (const char *nic : {"vmnic0", "vmnic1"}) {
        PgDown(nic, "Production", 0);
        DvDown(nic, "8", 0);
        DvUp(nic, "9", 2);
    }
    PgUp("vmnic1", "Production", 1);
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.vmnic.watchdog.reset(vmnic0)",
                                      "nox.problem.net.vmnic.watchdog.reset(vmnic1)"));
    EXPECT_THAT(After(1), ElementsAre("nox.clear.net.dvport.redundancy.restored(dvs/9, vmnic0)",
                                      "nox.problem.net.dvport.connectivity.lost(dvs/8, vmnic1)",
                                      "nox.clear.net.dvport.redundancy.restored(dvs/9, vmnic1)"));
}

TEST_F(UplinkTest, DownWithoutUpIsReportedWhenTheWatchdogComesDue)
{
    for (const char *nic : {"vmnic0", "vmnic1", "vmnic2"})
        Watchdog(nic);
    PgDown("vmnic0", "Production", 0);
    DvDown("vmnic0", "8", 0);
    DvDown("vmnic1", "9", 0);
    EXPECT_THAT(After(6), IsEmpty());
    LinkDownOf("vmnic2");
    EXPECT_THAT(After(1), ElementsAre("nox.problem.net.connectivity.lost(vSwitch0, vmnic0, Production)",
                                      "nox.problem.net.dvport.connectivity.lost(dvs/9, vmnic1)",
                                      "nox.problem.net.vmnic.linkstate.down(vmnic2)"));
}

// After every other outcome the NIC stays held, until one watchdog timeout turns out transient.
TEST_F(UplinkTest, Kept_ANicIsHeldUntilAWatchdogTimeoutIsResolved)
{
    Watchdog("vmnic0"); // neither down nor up
    EXPECT_THAT(After(7), IsEmpty());

    PgDown("vmnic0", "Production", 0);
    LinkDownOf("vmnic0");
    EXPECT_THAT(After(100), IsEmpty());
    Watchdog("vmnic0"); // down only
    EXPECT_EQ(1U, After(7).size());

    PgUp("vmnic0", "Production", 1);
    DvUp("vmnic0", "8", 1);
    EXPECT_THAT(After(2), IsEmpty());
    Watchdog("vmnic0"); // up only
    EXPECT_THAT(After(7), IsEmpty());

    PgDown("vmnic0", "Production", 0);
    Watchdog("vmnic0"); // both
    EXPECT_THAT(After(7), ElementsAre("nox.problem.net.vmnic.watchdog.reset(vmnic0)"));
}

// Bits of batches wait for the watchdog, those of link states do not: down and up a while ago are
// neither pending nor reported when it comes due.
TEST_F(UplinkTest, Kept_ALinkStateIsForgottenWhileTheNicIsHeld)
{
    Watchdog("vmnic0");
    LinkDownOf("vmnic0");
    clock.Advance(2);
    LinkUpOf("vmnic0");
    EXPECT_THAT(After(2), IsEmpty());
    EXPECT_THAT(After(3), IsEmpty());
}

// ---- Flapping -------------------------------------------------------------------------------------

class FlappingTest : public UplinkTest {
protected:
    void SetThreshold(const char *text) { runDir.Host("kernel/options/Net/LinkFlappingThreshold", text); }

    // What so many link-downs in the same second post of flapping.
    std::size_t FlapsReported(const char *nic, int times)
    {
        for (int i = 0; i < times; ++i)
            LinkDownOf(nic);
        const Lines posted = Events();
        return static_cast<std::size_t>(
            std::count(posted.begin(), posted.end(),
                       "nox.problem.net.vmnic.linkstate.flapping(" + std::string(nic) + ")"));
    }
};

TEST_F(FlappingTest, TheFourthLinkDownOverAThresholdOfThreeTakesTheNicDown)
{
    SetThreshold("3");
    EXPECT_EQ(0U, FlapsReported("vmnic0", 3));
    EXPECT_EQ(0U, FlapsReported("vmnic1", 3));
    EXPECT_EQ(std::nullopt, runDir.HostText("kernel/nodes/net/pNics/vmnic0/linkFlapping"));
    EXPECT_EQ(1U, FlapsReported("vmnic0", 1));
    EXPECT_EQ("1", runDir.HostText("kernel/nodes/net/pNics/vmnic0/linkFlapping"));
    EXPECT_EQ(0U, FlapsReported("vmnic0", 3)) << "counting starts again";
    EXPECT_EQ(1U, FlapsReported("vmnic0", 1));
}

TEST_F(FlappingTest, LinkDownsThatABatchHoldsBackCountToo)
{
    SetThreshold("3");
    PgDown("vmnic0", "Production", 0);
    EXPECT_EQ(1U, FlapsReported("vmnic0", 4));
}

TEST_F(FlappingTest, LinkDownsCountForAMinute)
{
    SetThreshold("1");
    EXPECT_EQ(0U, FlapsReported("vmnic0", 1));
    clock.Advance(61);
    EXPECT_EQ(0U, FlapsReported("vmnic0", 1));
    clock.Advance(60);
    EXPECT_EQ(1U, FlapsReported("vmnic0", 1));
}

TEST_F(FlappingTest, WithoutAThresholdNoNicIsTakenDown)
{
    for (const char *off : {"0", "-1", "none"}) {
        SetThreshold(off);
        EXPECT_EQ(0U, FlapsReported("vmnic0", 100)) << off;
    }
    EXPECT_EQ(std::nullopt, runDir.HostText("kernel/nodes/net/pNics/vmnic0/linkFlapping"));
}

TEST_F(FlappingTest, ANicThatCannotBeTakenDownIsTriedAgain)
{
    SetThreshold("3");
    EXPECT_EQ(0U, FlapsReported("vmnic7", 5));
    runDir.HostDirectory("kernel/nodes/net/pNics/vmnic7");
    EXPECT_EQ(1U, FlapsReported("vmnic7", 1));
}

// ---- The alarm ------------------------------------------------------------------------------------

TEST_F(UplinkTest, TheFirstRecordArmsTheAlarmAndTheRestOfAPassArmsItAgain)
{
    PgDown("vmnic0", "Production", 0);
    EXPECT_EQ(2U, TakeAlarm());
    Watchdog("vmnic1");
    clock.Advance(1);
    PgDown("vmnic2", "Production", 0);
    Watchdog("vmnic3");
    EXPECT_EQ(1U, After(1).size());
    EXPECT_EQ(1U, TakeAlarm()) << "the nearest of three";
    EXPECT_EQ(1U, After(1).size());
    EXPECT_EQ(4U, TakeAlarm());
    After(5);
    EXPECT_EQ(0U, TakeAlarm()) << "nothing waits";
}

// The remainder is reckoned from the arming before, but counted from now.
TEST_F(UplinkTest, Kept_ANearerRecordMovesTheAlarmLessThanItCould)
{
    Watchdog("vmnic0");
    clock.Advance(3);
    PgDown("vmnic1", "Production", 0);
    EXPECT_EQ(5U, TakeAlarm()) << "not 2";
}

TEST_F(UplinkTest, ARecordThatIsNotNearerLeavesTheAlarmAlone)
{
    Watchdog("vmnic0");
    clock.Advance(5);
    PgDown("vmnic1", "Production", 0); // 2 + 5 is not below 7
    EXPECT_EQ(2U, TakeAlarm());
}

TEST_F(UplinkTest, AClockSteppedBackMakesEveryRecordDueAtOnce)
{
    Watchdog("vmnic0");
    PgDown("vmnic1", "Production", 0);
    LinkDownOf("vmnic2");
    clock.Set(HandClock::kStart - 1);
    EXPECT_EQ(2U, After(0).size());
}

TEST_F(UplinkTest, AnAlarmOfNoSecondsIsArmedForOne)
{
    Watchdog("vmnic0");
    clock.Set(HandClock::kStart - 2);
    PgDown("vmnic1", "Production", 0); // 2 - 2
    EXPECT_EQ(1U, TakeAlarm());
}

// Further back still, the unsigned remainder is far away: the alarm stands where it was.
TEST_F(UplinkTest, Kept_AfterALargeStepBackTheAlarmIsNotMoved)
{
    Watchdog("vmnic0");
    clock.Set(HandClock::kStart - 3600);
    PgDown("vmnic1", "Production", 0);
    EXPECT_EQ(3607U, TakeAlarm());
}

TEST_F(UplinkTest, TheAlarmThreadWakesTheCorrelatorThroughThePipe)
{
    KeldAlarmStart();
    clock.AwaitWaiter();
    pollfd wake{wakeFd, POLLIN, 0};
    const auto woken = [&] { return poll(&wake, 1, 0) == 1; };

    PgDown("vmnic0", "Production", 0);
    clock.Advance(1);
    EXPECT_FALSE(woken());
    Watchdog("vmnic1");
    clock.Advance(1);
    ASSERT_TRUE(woken());
    char read[10];
    ASSERT_EQ(4, ::read(wakeFd, read, sizeof read));
    EXPECT_STREQ("foo", read);
    EXPECT_EQ(1U, After(0).size());

    clock.Advance(5);
    EXPECT_FALSE(woken()) << "the watchdog is due a second later";
    clock.Advance(1);
    EXPECT_TRUE(woken());
}

// ---- What else must hold --------------------------------------------------------------------------

TEST_F(UplinkTest, WhatCannotBeReadIsDroppedWithoutAWord)
{
    Observe(MakeKel("kel.net.pg.uplink.transition.down", "%s %s %d", "vmnic0", "Production", 0));
    Observe(MakeKel("kel.net.pg.uplink.transition.down", "%s %s %d %s", "vmnic0", "Production", 0, "4"));
    Observe(MakeKel("kel.net.pg.uplink.transition.down", "%s %s %d %d", kNullText, "Production", 0, 4));
    Observe(MakeKel("kel.net.pg.uplink.transition.up", "%s %s", "vmnic0", "Production"));
    Observe(MakeKel("kel.net.pg.uplink.transition.up", "%s %s %d", "vmnic0", kNullText, 1));
    Observe(MakeKel("kel.net.dvport.uplink.transition.down", "%s %s %s %d", "vmnic0", "dvs", "8", 0));
    Observe(MakeKel("kel.net.dvport.uplink.transition.up", "%s %s %d %d", "vmnic0", "dvs", 8, 1));
    Observe(MakeKel("kel.net.vmnic.linkstate.down", "%d", 0));
    Observe(MakeKel("kel.net.vmnic.linkstate.up", "%s", kNullText));
    Observe(MakeKel("kel.net.uplink.watchdog.timeout", "vmnic0"));

    EXPECT_THAT(After(10), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

// 10,000 transitions of 64 NICs within a second, down and then up: every one is named once.
TEST_F(UplinkTest, AStormLosesNothingAndLeavesNothingBehind)
{
    constexpr int kNics = 64, kTransitions = 10000;
    const auto each = [](auto &&portGroup, auto &&dvPort) {
        for (int i = 0; i < kTransitions; ++i) {
            const std::string nic = "vmnic" + std::to_string(i % kNics);
            if (i / kNics % 2 == 0)
                portGroup(nic.c_str());
            else
                dvPort(nic.c_str());
        }
    };
    // Items named by the events, whose last but one or last argument is their list.
    const auto named = [](const Lines &lines, const char *item) {
        std::size_t count = 0;
        for (const std::string &line : lines)
            for (std::size_t at = 0; (at = line.find(item, at)) != line.npos; ++at)
                ++count;
        return count;
    };

    each([&](const char *nic) { PgDown(nic, "Production", 0); },
         [&](const char *nic) { DvDown(nic, "8", 0); });
    const Lines down = After(2);
    EXPECT_EQ(std::size_t{2 * kNics}, down.size());
    EXPECT_EQ(std::size_t{kTransitions}, named(down, "Production") + named(down, "dvs/8"));

    each([&](const char *nic) { PgUp(nic, "Production", 2); }, [&](const char *nic) { DvUp(nic, "8", 2); });
    const Lines up = After(2);
    EXPECT_EQ(std::size_t{kTransitions}, named(up, "Production") + named(up, "dvs/8"));
}

} // namespace
