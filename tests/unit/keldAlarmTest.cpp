// The alarms on their own thread.

#include "keldAlarm.h"

#include "handClock.h"
#include "waitFor.h"

#include <atomic>
#include <climits>
#include <gtest/gtest.h>
#include <string>
#include <utility>

namespace {

class WatchedClock : public HandClock {
public:
    void WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                   std::optional<std::uint64_t> wallSeconds) override
    {
        waitedFor = wallSeconds.value_or(0);
        HandClock::WaitUntil(condition, lock, wallSeconds);
    }

    std::atomic<std::uint64_t> waitedFor{1}; // 0 without a limit
};

class AlarmTest : public testing::Test {
protected:
    AlarmTest()
    {
        KTime_SetSource(&clock);
        test = this;
        KeldAlarmStart();
        clock.AwaitWaiter();
    }

    static void Note(const char *name)
    {
        test->fired += name + std::to_string(test->clock.Now() - HandClock::kStart) + " ";
    }
    static void NoteA() { Note("a"); }
    static void NoteB() { Note("b"); }

    static int OneShot(int alarm, std::uint32_t seconds)
    {
        return KeldAlarmSet(alarm, kKeldAlarmOneShot, seconds);
    }
    static std::uint32_t SetAndTellRemaining(int alarm, std::uint32_t seconds)
    {
        std::uint32_t remaining = UINT_MAX;
        EXPECT_EQ(0, KeldAlarmSet(alarm, kKeldAlarmOneShot, seconds, &remaining));
        return remaining;
    }

    // What has fired when so many seconds have passed: "a10 b12 ".
    std::string After(std::uint64_t seconds)
    {
        clock.Advance(seconds);
        return std::exchange(fired, "");
    }

    static inline AlarmTest *test = nullptr;
    WatchedClock &clock = *new WatchedClock; // outlives the alarm thread
    const int a = KeldAlarmRegister(NoteA);
    const int b = KeldAlarmRegister(NoteB);
    std::string fired; // written on the alarm thread, while Advance waits for it
};

TEST_F(AlarmTest, SixteenAreRegisteredAndTheNextIsRefused)
{
    EXPECT_EQ(0, a);
    for (int number = 2; number < 16; ++number)
        EXPECT_EQ(number, KeldAlarmRegister(NoteB));
    EXPECT_EQ(-1, KeldAlarmRegister(NoteB));
    EXPECT_EQ(-1, KeldAlarmRegister(NoteB));
    EXPECT_EQ(0, OneShot(15, 5));
    for (const int unknown : {-1, 16}) {
        std::uint32_t remaining = 99;
        EXPECT_EQ(1, KeldAlarmSet(unknown, kKeldAlarmOneShot, 5, &remaining));
        EXPECT_EQ(0U, remaining);
    }
    for (const std::uint32_t unknownMode : {2U, 0x100U})
        EXPECT_EQ(1, KeldAlarmSet(15, unknownMode, 2));
    EXPECT_EQ("b5 ", After(10));
}

// A clock that nobody moves wakes nobody: the thread is told of every setting.
TEST_F(AlarmTest, TheThreadWaitsForTheEarliestAndFiresTheLowestOfThoseThatAreDue)
{
    const auto waitsFor = [this](std::uint64_t moment) {
        return WaitUntil([=, this] { return clock.waitedFor == moment; });
    };
    EXPECT_TRUE(waitsFor(0));
    EXPECT_EQ(0, OneShot(a, 180));
    EXPECT_TRUE(waitsFor(HandClock::kStart + 180));
    EXPECT_EQ(0, OneShot(b, 5));
    EXPECT_TRUE(waitsFor(HandClock::kStart + 5));
    EXPECT_EQ(0, OneShot(b, 0));
    EXPECT_TRUE(waitsFor(HandClock::kStart + 180));
    EXPECT_EQ(0, OneShot(b, 180));
    EXPECT_EQ("a180 b180 ", After(200));
    EXPECT_TRUE(waitsFor(0));
}

TEST_F(AlarmTest, SettingMovesAnAlarmAndTellsWhatItHadLeft)
{
    EXPECT_EQ(0U, SetAndTellRemaining(a, 10));
    EXPECT_EQ(0, OneShot(b, 12));
    EXPECT_EQ("", After(3));
    EXPECT_EQ(7U, SetAndTellRemaining(a, 4)); // moved, not added
    EXPECT_EQ("a7 ", After(8));
    EXPECT_EQ(1U, SetAndTellRemaining(b, 0));
    EXPECT_EQ("", After(100));
}

TEST_F(AlarmTest, APeriodicAlarmCountsFromTheMomentItFired)
{
    EXPECT_EQ(0, KeldAlarmSet(a, kKeldAlarmPeriodic, 5));
    EXPECT_EQ("a5 a10 ", After(12));
    clock.Set(HandClock::kStart + 28); // what the clock leaps over is not made up for
    EXPECT_EQ("a28 ", After(0));
    EXPECT_EQ("a33 ", After(6));
    EXPECT_EQ(4U, SetAndTellRemaining(a, 0));
    EXPECT_EQ("", After(100));
}

TEST_F(AlarmTest, AHandlerMayArmAndDisarmItselfAndOthers)
{
    static int own, other;
    own = KeldAlarmRegister([] {
        Note("self");
        EXPECT_EQ(0, OneShot(own, 3));
        EXPECT_EQ(0, OneShot(other, 0)); // due in the same second
    });
    other = KeldAlarmRegister([] { Note("other"); });
    EXPECT_EQ(0, KeldAlarmSet(other, kKeldAlarmPeriodic, 3));
    EXPECT_EQ(0, OneShot(own, 3));
    EXPECT_EQ("self3 self6 self9 ", After(10));
    EXPECT_EQ(0, OneShot(own, 0));
}

} // namespace
