// Hardware: arguments read one by one, shown in their order.
#include "correlatorFixture.h"
#include "keldDomains.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class HardwareCorrelatorTest : public CorrelatorTest {
protected:
    HardwareCorrelatorTest() : CorrelatorTest(keldHardwareDomain) {}
};

TEST_F(HardwareCorrelatorTest, ClassAndArgumentsFollowTheRow)
{
    Observe(MakeKel("kel.hardware.nvd.health.life.pctused", "%d %s %d %d", 33, "8089-A2", 95, 90));
    Observe(MakeKel("kel.hardware.nvd.health.alarms.lifetime.error", "%d %s %d", 33, "8089-A2", 97));
    Observe(MakeKel("kel.hardware.nvd.health.module.es.charged", "%d %s", 33, "8089-A2"));
    Observe(MakeKel("kel.hardware.ioapic.missing", "%d", 2));
    Observe(MakeKel("kel.hardware.tpm2.notis", "no TIS"));
    EXPECT_THAT(Events(),
                ElementsAre("nox.audit.hardware.nvd.health.life.pctused(33, 8089-A2, 95, 90)",
                            "nox.problem.hardware.nvd.health.alarms.lifetime.error(33, 8089-A2, 97)",
                            "nox.clear.hardware.nvd.health.module.es.charged(33, 8089-A2)",
                            "nox.problem.hardware.ioapic.missing(2)", "nox.problem.hardware.tpm2.notis()"));
}

TEST_F(HardwareCorrelatorTest, HandlesShowInHexadecimalAndTemperaturesWithTheirSign)
{
    Observe(MakeKel("kel.hardware.nvd.health.alarms.temperature", "%d %s %d", 33, "8089-A2", -5));
    EXPECT_THAT(log.LinesWith("NVDIMM (handle 0x21, idString 8089-A2): Temperature (-5 C) has"), SizeIs(1));
}

TEST_F(HardwareCorrelatorTest, AnArgumentThatIsMissingPostsNothing)
{
    Observe(MakeKel("kel.hardware.nvd.health.module.ce", "%d", 33));
    Observe(MakeKel("kel.hardware.nvd.health.module.ce", "%d %d", 33, 1));
    Observe(MakeKel("kel.hardware.nvd.health.life.pctused", "%d %s %d", 33, "8089-A2", 95));
    Observe(MakeKel("kel.hardware.ioapic.missing", "none"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

TEST_F(HardwareCorrelatorTest, Kept_ATabInTheChargingText)
{
    Observe(MakeKel("kel.hardware.nvd.health.module.es.charging", "%d %s", 33, "8089-A2"));
    EXPECT_THAT(log.LinesWith("sufficient charge to support\ta backup."), SizeIs(1));
}

} // namespace
