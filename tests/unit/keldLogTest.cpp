// The diagnostic log: what stands before a line, and what a line may be.

#include "keldLog.h"

#include "handClock.h"
#include "logCapture.h"

#include <cstdlib>
#include <gtest/gtest.h>
#include <string>

namespace {

class LogTest : public testing::Test {
protected:
    LogTest()
    {
        setenv("TZ", "UTC0", 1);
        KTime_SetSource(&clock);
    }
    ~LogTest() override { KTime_SetSource(nullptr); }

    // As it goes to the system log.
    std::string Logged(int code)
    {
        const std::size_t before = log.Raw().size();
        KeldLog("Exiting. rc:%d\n", code);
        return log.Raw().substr(before);
    }

    HandClock clock;
    LogCapture log;
};

TEST_F(LogTest, Kept_TheLocalTimeStandsBeforeALiteralZ)
{
    EXPECT_EQ("2026-03-01T12:00:00.000Z: Exiting. rc:0\n", Logged(0));
    setenv("TZ", "IST-5:30", 1);
    clock.Set(HandClock::kStart + 1, 999999); // cut, not rounded
    EXPECT_EQ("2026-03-01T17:30:01.999Z: Exiting. rc:1\n", Logged(1));
    setenv("TZ", "EST5", 1);
    clock.Set(HandClock::kStart + 2, 1999); // a zone that changes is seen in the next second
    EXPECT_EQ("2026-03-01T07:00:02.001Z: Exiting. rc:2\n", Logged(2));
}

TEST_F(LogTest, ALineWithoutATimeIsStillWritten)
{
    class BrokenClock : public HandClock {
        int GetTimeOfDay(timeval *) override { return -1; }
    } broken;
    KTime_SetSource(&broken);
    EXPECT_EQ("Exiting. rc:7\n", Logged(7));
    char buffer[32] = "as it was";
    EXPECT_EQ(0U, KeldLogTimestamp(true, buffer, sizeof buffer));
    EXPECT_STREQ("as it was", buffer);
}

TEST_F(LogTest, ALineOfAnyLengthStaysWholeAndNoTextIsTakenForAFormat)
{
    const std::string text = std::string(100'000, 'x') + "%s%n 100%";
    KeldLogTraceLine("kel.external.error", text.c_str(), 5);
    KeldLogTraceLine(nullptr, nullptr, 18446744073709551615U);
    const auto lines = log.Lines();
    ASSERT_EQ(2U, lines.size());
    EXPECT_TRUE(lines[0].ends_with("] 5us: [kel.external.error] " + text));
    EXPECT_TRUE(lines[1].ends_with("] 18446744073709551615us: [(null)] (null)")) << lines[1];
}

} // namespace
