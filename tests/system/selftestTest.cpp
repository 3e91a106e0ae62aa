// The optional agents, in the real daemon: the self-test against its producer, and the logger.

#include "selftestProducer.h"
#include "systemTest.h"

#include <functional>
#include <gmock/gmock.h>
#include <sstream>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class SelftestTest : public SystemTest {
protected:
    SelftestTest()
    {
        daemon.emplace(kHandClockDaemon, Texts{}, Texts{"KELD_OPTIONAL_AGENTS=1"});
        EXPECT_TRUE(daemon->WaitUntilReady()) << daemon->Log().Raw() << daemon->Output();
        producer.emplace(kUser);
    }

    void SendMarker(const char *name) { EXPECT_EQ(0, producer->Send(SelftestMarker(name))); }
    void SendScript()
    {
        for (const RecordBytes &record : script)
            EXPECT_EQ(0, producer->Send(record));
    }
    // From the start to the end, which must be with so many failures.
    void RunAndExpect(int failures)
    {
        SendMarker("start");
        SendScript();
        SendMarker("end");
        EXPECT_EQ(failures, daemon->WaitForExit()) << daemon->Output();
    }

    // The lines that tell of a failure, and the one with their number.
    Texts Verdict() const
    {
        Texts verdict;
        std::istringstream text(daemon->Output());
        for (std::string line; std::getline(text, line);)
            if (line.starts_with("FAIL") || line.starts_with("WARNING") || line.starts_with("INFO: Tests"))
                verdict.push_back(line);
        return verdict;
    }

    std::vector<RecordBytes> script = SelftestObservations();
    std::optional<RawProducer> producer;
};

TEST_F(SelftestTest, ScriptAsAgreedPassesAndPostsThroughEveryEntryOfThePoster)
{
    RunAndExpect(0);
    const std::string output = daemon->Output();
    EXPECT_EQ(0, output.find("INFO: Testing Pling_PostProblem.\nINFO: Testing Pling_PostAudit.\n"
                             "INFO: Testing Pling_PostClear.\nINFO: Pling tests completed\n"
                             "INFO: Got kel: kel.tests.marker.start\n"
                             "INFO: Received 'test start' kel: kel.tests.marker.start\n"
                             "INFO: Alarm handler ready\n"
                             "INFO: Got kel: kel.tests.user.withoutParams\n"
                             "PASS: [0]: kel.tests.user.withoutParams\n"));
    EXPECT_THAT(output,
                HasSubstr("\nPASS: Kel_GetArgs (with field width specifiers) succeeded for KEL "
                          "kel.tests.async.withIntParams. Args: -2147483648, ffffffff, 2147483647\n"));
    EXPECT_THAT(Verdict(), ElementsAre("INFO: Tests completed. Failures = 0"));
    EXPECT_THAT(receiver.WaitForTexts(5), ElementsAre("nox.problem.keldtestcorrelator.test.0()",
                                                      "nox.problem.keldtestcorrelator.test.1d(1)",
                                                      "nox.problem.keldtestcorrelator.test.1s(One)",
                                                      "nox.audit.keldtestcorrelator.test(Two, 2)",
                                                      "nox.clear.keldtestcorrelator.test(Three, 3, arg)"))
        << "the huge text and the huge ID are dropped";
}

TEST_F(SelftestTest, WhatIsChangedFailsAndHoldsUpItsRow)
{
    script[19] = MakeRecord("kel.tests.async.withLongStringParams", "%s.", "short");
    RunAndExpect(3);
    EXPECT_THAT(Verdict(), ElementsAre(testing::EndsWith("'; Got 'short.'"),
                                       "FAIL: Expected kelId = 'kel.tests.async.withLongStringParams'; Got "
                                       "'kel.tests.async.withMixedParams'",
                                       "FAIL: No. of tests = 21, but received only 19 kels.",
                                       "INFO: Tests completed. Failures = 3"));
}

TEST_F(SelftestTest, OneMoreThanAgreedEndsTheTest)
{
    script.push_back(script[0]);
    SendMarker("start");
    SendScript();
    EXPECT_EQ(1, daemon->WaitForExit());
    EXPECT_THAT(Verdict(), ElementsAre("FAIL: More KELs receieved than expected! kelId = "
                                       "'kel.tests.user.withoutParams'.  Did more get added to the "
                                       "testworld?"));
}

TEST_F(SelftestTest, NothingMayArriveInTheCorruptWindowOrOutOfPlace)
{
    EXPECT_EQ(0, producer->Send(script[0]));
    SendMarker("start");
    SendMarker("corruptions.start");
    RecordBytes corrupt = script[2];
    corrupt[8] ^= std::byte{1};
    EXPECT_EQ(0, producer->Send(corrupt)) << "the channel drops it";
    EXPECT_EQ(0, producer->Send(script[3]));
    SendMarker("corruptions.end");
    RunAndExpect(2);
    EXPECT_THAT(
        Verdict(),
        ElementsAre("WARNING: received kel kel.tests.user.withoutParams before test 'START' kel. "
                    "(Ignoring.)",
                    "FAIL: Kel kel.tests.user.withEmptyStringParam received, but should get nothing "
                    "during the corrupt kel window.  Dropping.",
                    "FAILURE: Duplicate test start kels?!", "INFO: Tests completed. Failures = 2"));
}

TEST_F(SelftestTest, SilenceOfFiveSecondsEndsTheTest)
{
    script.resize(2);
    SendMarker("start");
    SendScript();
    ASSERT_TRUE(
        WaitUntil([&] { return daemon->Output().ends_with("PASS: [1]: kel.tests.user.withPercent\n"); }));
    daemon->Advance(4);
    EXPECT_TRUE(daemon->IsRunning());
    EXPECT_THROW(daemon->Advance(1), std::runtime_error) << "it has ended, and its clock with it";
    EXPECT_EQ(1, daemon->WaitForExit());
    EXPECT_THAT(Verdict(), ElementsAre("FAIL: Timeout.  Waited 5 seconds, but got no kels."));
}

// The status has eight bits, and what was sent last was wrong.
TEST_F(SelftestTest, ManyFailuresAreNotTakenForNoneAndSilenceBehindOneEndsTheTest)
{
    SendMarker("start");
    script.assign(255, script[1]);
    SendScript();
    ASSERT_TRUE(WaitUntil([&] { return Verdict().size() == 255; }));
    EXPECT_THROW(daemon->Advance(5), std::runtime_error) << "it has ended, and its clock with it";
    EXPECT_EQ(255, daemon->WaitForExit()) << "256 with the time-out";
}

// ---- The logger -----------------------------------------------------------------------------------

TEST_F(SelftestTest, Kept_LoggerEndsForOneDomainTooMany)
{
    EXPECT_TRUE(daemon->Log().WaitForLine("Failed to initialize agent LogAllLogger (error code: 1) "));
    SendReport(kUser, "after");
    EXPECT_TRUE(daemon->Log().WaitForLine("nox.problem.3rdParty.error"));
    EXPECT_THAT(daemon->Log().LinesWith("[LogAllLogger]"), testing::IsEmpty());
}

} // namespace
