// The system clock: at most one event an hour for each observation, and how a loss reopens recovery.
#include "correlatorFixture.h"
#include "keldDomains.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

constexpr const char *kReset = "kel.clock.state.reset";
constexpr const char *kSynchronized = "kel.clock.correction.adjtime.sync";
constexpr const char *kLost = "kel.clock.correction.adjtime.unsync";

class ClockCorrelatorTest : public CorrelatorTest {
protected:
    ClockCorrelatorTest() : CorrelatorTest(keldClockDomain) {}

    void Observe(const char *id) { CorrelatorTest::Observe(MakeKel(id, "plain")); }
    using CorrelatorTest::Observe;
};

TEST_F(ClockCorrelatorTest, ArgumentsAreShownInTheirOrder)
{
    Observe(MakeKel("kel.clock.correction.step.unsync", "%d %d", 1772366401, 5));
    Observe(
        MakeKel("kel.clock.correction.delta.warning", "%d %d %d %d %d %d", 1772366401, 5, 301, 300, 2, 8));
    Observe(MakeKel("kel.clock.correction.delta.allowed", "%d %d %d %d", 1772366401, 5, 301, 300));
    Observe(MakeKel("kel.clock.parameter.set.maxLargeCorrections", "%d", 8));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.clock.correction.step.unsync(1772366401, 5)",
                            "nox.problem.clock.correction.delta.warning(1772366401, 5, 301, 300, 2, 8)",
                            "nox.problem.clock.correction.delta.allowed(1772366401, 5, 301, 300)",
                            "nox.problem.clock.parameter.set.maxLargeCorrections(8)"));
    EXPECT_THAT(log.LinesWith("system clock stepped to 1772366401.000000005, lost sync"), SizeIs(1));
}

TEST_F(ClockCorrelatorTest, TheHourEndsWith3600SecondsSinceTheLastEvent)
{
    Observe(kReset);
    clock.Advance(600);
    Observe(kReset);
    EXPECT_THAT(Events(), SizeIs(1));

    clock.Advance(2999);
    Observe(kReset);
    EXPECT_THAT(Events(), IsEmpty()) << "3599 seconds after the first";

    clock.Advance(1);
    Observe(kReset);
    EXPECT_THAT(Events(), SizeIs(1)) << "3600 seconds after the first";
}

TEST_F(ClockCorrelatorTest, EveryObservationHasItsOwnHour)
{
    Observe(kReset);
    Observe(kLost);
    Observe(MakeKel("kel.clock.parameter.set.maxNegPhaseCorrection", "%d", 600));
    Observe(MakeKel("kel.clock.parameter.set.maxPosPhaseCorrection", "%d", 600));
    EXPECT_THAT(Events(), SizeIs(4));
}

TEST_F(ClockCorrelatorTest, ALossReopensRecoveryButNotTheOtherWayRound)
{
    Observe(kSynchronized);
    EXPECT_THAT(Events(), SizeIs(1));
    Observe(kSynchronized);
    EXPECT_THAT(Events(), IsEmpty());

    Observe(kLost);
    clock.Advance(300);
    Observe(kSynchronized);
    EXPECT_THAT(Events(), ElementsAre("nox.problem.clock.correction.adjtime.unsync()",
                                      "nox.problem.clock.correction.adjtime.sync()"));

    clock.Advance(300);
    Observe(kLost);
    Observe(kSynchronized);
    EXPECT_THAT(Events(), IsEmpty()) << "a loss that is not posted reopens nothing";
}

TEST_F(ClockCorrelatorTest, EachKindOfLossReopensRecovery)
{
    Observe(kSynchronized);
    Observe(MakeKel("kel.clock.correction.step.unsync", "%d %d", 1772366401, 5));
    Observe(kSynchronized);
    Observe("kel.clock.correction.adjtime.lostsync");
    Observe(kSynchronized);
    EXPECT_THAT(Events(), SizeIs(5));
}

TEST_F(ClockCorrelatorTest, AFailedReadDoesNotStartTheHour)
{
    Observe(MakeKel("kel.clock.correction.delta.failed", "%d %d %s %d %d", 1772366401, 5, "301", 300, 8));
    EXPECT_THAT(Events(), IsEmpty());
    Observe(MakeKel("kel.clock.correction.delta.failed", "%d %d %d %d %d", 1772366401, 5, 301, 300, 8));
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.clock.correction.delta.failed(1772366401, 5, 301, 300, 8)"));
}

TEST_F(ClockCorrelatorTest, AClockThatWasSetBackProlongsTheHour)
{
    Observe(kReset);
    clock.Set(HandClock::kStart - 86400);
    Observe(kReset);
    EXPECT_THAT(Events(), SizeIs(1));
    clock.Set(HandClock::kStart + 3600);
    Observe(kReset);
    EXPECT_THAT(Events(), SizeIs(1));
}

TEST_F(ClockCorrelatorTest, AnObservationThatIsNotKnownIsNamedInTheLog)
{
    Observe("kel.clock.frequency.changed");
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), ElementsAre("No system clock correlator for kel.clock.frequency.changed"));
}

} // namespace
