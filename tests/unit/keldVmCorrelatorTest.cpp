#include "keldDomains.h"

#include "correlatorFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

constexpr char kPath[] = "/dsfs/volumes/gold/web01/web01.nvx";

class VmCorrelatorTest : public CorrelatorTest {
protected:
    VmCorrelatorTest() : CorrelatorTest(keldVmDomain) {}

    void FaultFailure(const char *swapFile, const char *path = kPath)
    {
        Observe(MakeKel("kel.vm.kill.unexpected.fault.failure", "%s in %s", path, swapFile));
    }
};

TEST_F(VmCorrelatorTest, ReasonIsPostedWithTheConfigurationFile)
{
    Observe(MakeKel("kel.vm.kill.unexpected.vmtrack", "%s", kPath));
    Observe(MakeKel("kel.vm.kill.unexpected.forcefulPageRetire.64", "%s %lx", kPath, 0xFEDCBA9876543210UL));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.vm.kill.unexpected.vmtrack.2(/dsfs/volumes/gold/web01/web01.nvx)",
                            "nox.problem.vm.kill.unexpected.forcefulPageRetire.64.2("
                            "/dsfs/volumes/gold/web01/web01.nvx, 18364758544493064720)"));
}

TEST_F(VmCorrelatorTest, Kept_SecondsWithoutSwapResponseArePostedAsThirtyTwoBits)
{
    Observe(MakeKel("kel.vm.kill.unexpected.noSwapResponse", "%s %u %lu", kPath, 4U, 0x10000003CUL));
    const std::vector<EventRecord> posted = events.Drain();
    ASSERT_EQ(1U, posted.size());
    EXPECT_EQ("nox.problem.vm.kill.unexpected.noSwapResponse.2(/dsfs/volumes/gold/web01/web01.nvx, 4, 60)",
              ToText(posted[0]));
    EXPECT_EQ(3U, posted[0].arguments[2].type) << "unsigned, 32 bits";
}

TEST_F(VmCorrelatorTest, SwapFileIsPostedAsItsDatastore)
{
    runDir.Host("storage/filesystems/1/name", "gold");
    runDir.Host("storage/filesystems/1/uuid", "4f3a8e52-0c7d91aa-6b2e-001b21a4c9d0");
    for (const char *swapFile :
         {"/dsfs/volumes/gold/web01/web01.swp", "/dsfs/volumes/silver/web01/web01.swp", "/tmp/web01.swp"})
        FaultFailure(swapFile);
    const std::string event =
        "nox.problem.vm.kill.unexpected.fault.failure.2(/dsfs/volumes/gold/web01/web01.nvx, ";
    EXPECT_THAT(Events(), ElementsAre(event + "gold)", event + "(unknown))", event + "(invalid))"));
}

TEST_F(VmCorrelatorTest, NullTextLeavesTheOtherAsItIs)
{
    FaultFailure(nullptr);
    FaultFailure("/dsfs/volumes/gold/web01/web01.swp", kNullText);
    Observe(MakeKel("kel.vm.kill.unexpected.noSwapResponse", "%s %u %lu", kNullText, 4U, 60UL));
    const std::string event = "nox.problem.vm.kill.unexpected.";
    EXPECT_THAT(Events(),
                ElementsAre(event + "fault.failure.2(/dsfs/volumes/gold/web01/web01.nvx, (invalid))",
                            event + "fault.failure.2((null), (unknown))",
                            event + "noSwapResponse.2((null), 4, 60)"));
}

TEST_F(VmCorrelatorTest, UnreadableDetailsArePostedAsNullTextsAndZeros)
{
    for (const char *reason :
         {"noSwapResponse", "vmp.fault.failure", "vmtrack", "forcefulPageRetire.64", "fault.failure"})
        Observe(MakeKel((std::string("kel.vm.kill.unexpected.") + reason).c_str(), "%d", 1));
    EXPECT_THAT(Events(), ElementsAre("nox.problem.vm.kill.unexpected.noSwapResponse.2((null), 0, 0)",
                                      "nox.problem.vm.kill.unexpected.vmp.fault.failure.2((null))",
                                      "nox.problem.vm.kill.unexpected.vmtrack.2((null))",
                                      "nox.problem.vm.kill.unexpected.forcefulPageRetire.64.2((null), 0)",
                                      "nox.problem.vm.kill.unexpected.fault.failure.2((null), (invalid))"));
}

TEST_F(VmCorrelatorTest, UnknownReasonIsLogged)
{
    Observe(MakeKel("kel.vm.kill.unexpected.sunspots", "%s", kPath));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("No correlator for kel.vm.kill.unexpected.sunspots "));
}

} // namespace
