#include "correlatorFixture.h"
#include "keldDomains.h"

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char *kUuid = "5f3a1b2c-0004d2e7-00ab-001b21c00fff";
const std::string kPath = "/dsfs/volumes/datastore1/sysSwap-host7.swp";

class SwapCorrelatorTest : public CorrelatorTest {
protected:
    SwapCorrelatorTest() : CorrelatorTest(keldSwapDomain)
    {
        runDir.Host("storage/filesystems/0/name", "datastore1");
        runDir.Host("storage/filesystems/0/uuid", kUuid);
    }

    void ObserveRemoved(const char *path = kPath.c_str())
    {
        Observe(
            MakeKel("kel.swap.systemSwap.isPDL.removed",
                    "System swap at path %s was affected by the Permanent Device Loss of its datastore and "
                    "was removed.",
                    path));
    }
    void ObserveCannotRemove(const char *path = kPath.c_str())
    {
        Observe(
            MakeKel("kel.swap.systemSwap.isPDL.cannot.remove",
                    "System swap at path %s is affected by the Permanent Device Loss of its datastore but "
                    "cannot be removed.",
                    path));
    }
    std::string Reconfigured() { return runDir.HostText("swap/reconfigured").value_or("never"); }

    const char *none = nullptr; // a literal one is a warning
};

TEST_F(SwapCorrelatorTest, SwapThatIsSetUpAnewIsOneLineInTheLog)
{
    ObserveRemoved();
    EXPECT_EQ("1", Reconfigured());
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("System swap at path " + kPath +
                                        " was affected by the PDL of its datastore and was removed. System "
                                        "swap has been reconfigured."));
}

TEST_F(SwapCorrelatorTest, EveryRemovalReconfigures)
{
    ObserveRemoved();
    ObserveRemoved();
    EXPECT_EQ("2", Reconfigured());
}

TEST_F(SwapCorrelatorTest, FailedReconfigurationIsAProblemAndTheReasonALineInTheLog)
{
    runDir.Host("swap/failure", "No datastore has 1024 MB to spare: 100% used");
    ObserveRemoved();
    EXPECT_EQ("never", Reconfigured());
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2(datastore1)"));
    EXPECT_THAT(LogLines(), ElementsAre("No datastore has 1024 MB to spare: 100% used"));
}

TEST_F(SwapCorrelatorTest, CountThatIsNoNumberFailsTheReconfiguration)
{
    runDir.Host("swap/reconfigured", "often");
    ObserveRemoved();
    EXPECT_EQ("often", Reconfigured());
    EXPECT_THAT(Events(), ElementsAre(HasSubstr("reconfig.failure.2(datastore1)")));
    EXPECT_THAT(LogLines(), ElementsAre(HasSubstr("cannot read swap/reconfigured")));
}

TEST_F(SwapCorrelatorTest, SwapThatCannotBeRemovedIsAProblemOfItsDatastore)
{
    ObserveCannotRemove();
    ObserveCannotRemove((std::string("/dsfs/volumes/") + kUuid + "/sysSwap-host7.swp").c_str());
    ObserveCannotRemove("/dsfs/volumes/datastore9/sysSwap-host7.swp");
    ObserveCannotRemove("/tmp/sysSwap-host7.swp");
    const std::string event = "nox.problem.swap.systemSwap.isPDL.cannot.remove.2";
    EXPECT_THAT(Events(), ElementsAre(event + "(datastore1)", event + "(" + kUuid + ")",
                                      event + "((unknown))", event + "((invalid))"));
    EXPECT_EQ("never", Reconfigured());
}

TEST_F(SwapCorrelatorTest, WhatCannotBeReadOrIsNotKnownDoesNothing)
{
    ObserveRemoved(none);
    ObserveCannotRemove(none);
    Observe(MakeKel("kel.swap.systemSwap.isPDL.removed", "removed"));
    Observe(MakeKel("kel.swap.systemSwap.isPDL.cannot.remove", "%d", 7));
    Observe(MakeKel("kel.swap.systemSwap.moved", "%s", kPath.c_str()));
    EXPECT_EQ("never", Reconfigured());
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

} // namespace
