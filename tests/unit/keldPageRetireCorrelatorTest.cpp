#include "keldDomains.h"

#include "correlatorFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class PageRetireCorrelatorTest : public CorrelatorTest {
protected:
    PageRetireCorrelatorTest() : CorrelatorTest(keldPageRetireDomain)
    {
        runDir.Host("vms/4711/name", "web01");
        runDir.Host("vms/4712/name", "db02");
    }

    void Start() { KeldPageRetireReadSettings(); }

    void Selected(std::uint64_t count)
    {
        Observe(MakeKel("kel.pageretire.selectedmpnthreshold.host.exceeded",
                        "Number of MPNs selected for retirement is %lu", count));
    }
    // The counts, out of so many, that were posted.
    std::vector<std::uint64_t> PostedOf(const std::vector<std::uint64_t> &counts)
    {
        std::vector<std::uint64_t> posted;
        for (const std::uint64_t count : counts) {
            Selected(count);
            if (!Events().empty()) posted.push_back(count);
        }
        return posted;
    }

    void Inject(int worldId, unsigned page, int times = 1)
    {
        for (int i = 0; i < times; ++i)
            Observe(MakeKel("kel.pageretire.mce.injected",
                            "Injected MCE for PPN %x into virtual machine %d.", page, worldId));
    }
    bool Stopped(int worldId) const
    {
        return runDir.HostText("vms/" + std::to_string(worldId) + "/terminated") == "0";
    }

    void FirmwareRequest(const char *hardwareLog = "SEL 12")
    {
        Observe(
            MakeKel("kel.pageretire.platform.retire.request", "FRU %s, log %s", "DIMM_A3", hardwareLog));
    }
};

using PageRetireCorrelatorDeathTest = PageRetireCorrelatorTest;

// ---- Selected pages -------------------------------------------------------------------------------

TEST_F(PageRetireCorrelatorTest, SelectedPagesPostAboveTheThresholdAndAgainOneIntervalHigher)
{
    Start(); // 1000 pages, 10 percent
    Selected(1000);
    EXPECT_THAT(Events(), IsEmpty());
    Selected(1001);
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.pageretire.selectedmpnthreshold.host.exceeded(1001, 1000)"));
    EXPECT_THAT(PostedOf({1050, 1100, 1101, 1200, 1201, 1150}), ElementsAre(1101, 1201));
}

TEST_F(PageRetireCorrelatorTest, SettingsAreThoseOfTheStart)
{
    runDir.Host("kernel/nodes/system/pageRetire/threshold", "16");
    runDir.Host("kernel/options/PageRetire/ThresholdInterval", "49");
    Start(); // steps of 7.84, cut to 7
    runDir.Host("kernel/nodes/system/pageRetire/threshold", "5000");
    EXPECT_THAT(PostedOf({16, 17, 23, 24}), ElementsAre(17, 24));
}

TEST_F(PageRetireCorrelatorTest, Kept_IntervalAboveOneHundredPercentPostsEveryCount)
{
    runDir.Host("kernel/options/PageRetire/ThresholdInterval", "150");
    Start();
    EXPECT_THAT(PostedOf({1001, 1001, 1002}), ElementsAre(1001, 1001, 1002));
}

TEST_F(PageRetireCorrelatorDeathTest, UnreadableSettingsEndTheDaemon)
{
    runDir.Host("kernel/options/PageRetire/ThresholdInterval", "ten");
    EXPECT_DEATH(Start(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:189");
    runDir.Host("kernel/nodes/system/pageRetire/threshold", "-1");
    EXPECT_DEATH(Start(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:178");
    runDir.Host("kernel/options/PageRetire/ApeiLoggingEnabled", "");
    EXPECT_DEATH(FirmwareRequest(), "NOT_REACHED apps/keld/keldPageRetireCorrelator:126");
}

TEST_F(PageRetireCorrelatorTest, Kept_PagesNotRetiredArePostedOnceWhileTheDaemonRuns)
{
    for (const unsigned long count : {77UL, 78UL})
        Observe(MakeKel("kel.pageretire.selectedbutnotretired.high", "%lu", count));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.selectedbutnotretired.high(77)"));
}

TEST_F(PageRetireCorrelatorTest, FirmwareRequestIsPostedWhileItsOptionIsNotZero)
{
    FirmwareRequest();
    runDir.Host("kernel/options/PageRetire/ApeiLoggingEnabled", "0");
    FirmwareRequest();
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.platform.retire.request(DIMM_A3, SEL 12)"));
    runDir.Host("kernel/options/PageRetire/ApeiLoggingEnabled", "2");
    FirmwareRequest("SEL 13");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.platform.retire.request(DIMM_A3, SEL 13)"));
}

TEST_F(PageRetireCorrelatorTest, UnreadableArgumentsDoNothing)
{
    Start();
    for (const char *report : {"selectedbutnotretired.high", "selectedmpnthreshold.host.exceeded",
                               "mce.injected", "platform.retire.request"})
        Observe(MakeKel((std::string("kel.pageretire.") + report).c_str(), "%s", "many"));
    FirmwareRequest(nullptr);
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

// ---- Injected machine checks ----------------------------------------------------------------------

TEST_F(PageRetireCorrelatorTest, FiftyInjectionsOfAPageOverTwoSecondsStopTheVirtualMachine)
{
    Inject(4711, 0x1f00, 48);
    clock.Advance(2);
    Inject(4711, 0x1f00);
    EXPECT_THAT(Events(), IsEmpty()) << "49";
    EXPECT_FALSE(Stopped(4711));
    Inject(4711, 0x1f00);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(web01, 50, 7936)"));
    EXPECT_TRUE(Stopped(4711));
}

TEST_F(PageRetireCorrelatorTest, InjectionsWithinLessThanTwoSecondsDoNotStopIt)
{
    Inject(4711, 0x1f00, 30);
    clock.Advance(1);
    Inject(4711, 0x1f00, 30);
    EXPECT_THAT(Events(), IsEmpty());
    clock.Advance(1);
    Inject(4711, 0x1f00);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(web01, 61, 7936)"));
}

TEST_F(PageRetireCorrelatorTest, InjectionCountsForSixtySeconds)
{
    Inject(4711, 0x1f00, 49);
    clock.Advance(61);
    Inject(4711, 0x1f00);
    EXPECT_THAT(Events(), IsEmpty()) << "61 seconds";
    Inject(4711, 0x1f00, 48);
    clock.Advance(60);
    Inject(4711, 0x1f00);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(web01, 50, 7936)"))
        << "60 seconds";
}

TEST_F(PageRetireCorrelatorTest, PagesAndVirtualMachinesAreCountedOnTheirOwn)
{
    for (int i = 0; i < 49; ++i) {
        Inject(4711, 0x1f00);
        Inject(4712, 0x1f00);
        Inject(4711, 0x2000);
        if (i == 24) clock.Advance(2);
    }
    EXPECT_THAT(Events(), IsEmpty());
    Inject(4712, 0x1f00);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(db02, 50, 7936)"));
    Inject(4711, 0x2000);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(web01, 50, 8192)"));
    EXPECT_TRUE(Stopped(4711) && Stopped(4712));
}

TEST_F(PageRetireCorrelatorTest, StoppedVirtualMachineIsLeftAloneWhileItsInjectionsLast)
{
    Inject(4711, 0x1f00, 25);
    clock.Advance(2);
    Inject(4711, 0x1f00, 25);
    EXPECT_EQ(1U, Events().size());
    for (int i = 0; i < 30; ++i) {
        clock.Advance(2);
        Inject(4711, 0x1f00, 5);
        Inject(4711, 0x2000, 5);
    }
    EXPECT_THAT(Events(), IsEmpty());
    clock.Advance(61); // and then it is another one's world ID
    Inject(4712, 0x1f00);
    Inject(4711, 0x1f00, 49);
    clock.Advance(2);
    Inject(4711, 0x1f00);
    EXPECT_EQ(1U, Events().size());
}

TEST_F(PageRetireCorrelatorTest, VirtualMachinesThatAreGoneAreLeftAloneUntilTheyAreThere)
{
    for (const int worldId : {6000, 5000})
        Inject(worldId, 0x1f00, 49);
    clock.Advance(2);
    for (const int worldId : {6000, 5000})
        Inject(worldId, 0x1f00, 2);
    EXPECT_THAT(Events(), IsEmpty());
    runDir.Host("vms/6000/name", "late04");
    runDir.Host("vms/5000/name", "late03");
    Inject(6000, 0x2000); // every page of every machine is looked at, by world ID
    EXPECT_THAT(Events(), ElementsAre("nox.problem.pageretire.mce.injected.2(late03, 50, 7936)",
                                      "nox.problem.pageretire.mce.injected.2(late04, 50, 7936)"));
    EXPECT_TRUE(Stopped(5000) && Stopped(6000));
}

TEST_F(PageRetireCorrelatorTest, VirtualMachineThatCannotBeStoppedIsReportedOnce)
{
    runDir.HostDirectory("vms/4711/terminated");
    Inject(4711, 0x1f00, 49);
    clock.Advance(2);
    Inject(4711, 0x1f00, 10);
    EXPECT_EQ(1U, Events().size());
    EXPECT_FALSE(Stopped(4711));
}

} // namespace
