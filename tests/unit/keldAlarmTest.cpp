// The alarms on their own thread, and the step that it repeats.

#include "keldAlarm.h"

#include "handClock.h"
#include "waitFor.h"

#include <atomic>
#include <climits>
#include <gtest/gtest.h>
#include <kltlibs/ktime.h>
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

    // What has fired when so many seconds have passed: "a10 b12 ".
    std::string After(std::uint64_t seconds)
    {
        clock.Advance(seconds);
        return std::exchange(fired, "");
    }
    static std::uint32_t SetAndTellRemaining(int alarm, std::uint32_t seconds)
    {
        std::uint32_t remaining = UINT_MAX;
        EXPECT_EQ(0, KeldAlarmSet(alarm, kKeldAlarmOneShot, seconds, &remaining));
        return remaining;
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
    EXPECT_EQ(0, KeldAlarmSet(15, kKeldAlarmOneShot, 5));
    for (const int unknown : {-1, 16}) {
        std::uint32_t remaining = 99;
        EXPECT_EQ(1, KeldAlarmSet(unknown, kKeldAlarmOneShot, 5, &remaining));
        EXPECT_EQ(0U, remaining);
    }
    EXPECT_EQ("b5 ", After(10));
}

TEST_F(AlarmTest, AnUnknownModeIsRefusedAndChangesNothing)
{
    EXPECT_EQ(0, KeldAlarmSet(a, kKeldAlarmOneShot, 5));
    for (const std::uint32_t mode : {2U, 0x100U, UINT_MAX})
        EXPECT_EQ(1, KeldAlarmSet(a, mode, 2));
    EXPECT_EQ("a5 ", After(20));
}

TEST_F(AlarmTest, SettingTellsWhatThePreviousSettingHadLeft)
{
    EXPECT_EQ(0U, SetAndTellRemaining(a, 10));
    After(3);
    EXPECT_EQ(7U, SetAndTellRemaining(a, 4)); // moved, not added
    EXPECT_EQ("a7 ", After(20));
    EXPECT_EQ(0U, SetAndTellRemaining(a, 0));
}

// A clock that nobody moves wakes nobody: the thread is told of every setting.
TEST_F(AlarmTest, TheThreadWaitsForWhatWasSetLast)
{
    const auto waitsFor = [this](std::uint64_t moment) {
        return WaitUntil([=, this] { return clock.waitedFor == moment; });
    };
    EXPECT_TRUE(waitsFor(0));
    EXPECT_EQ(0, KeldAlarmSet(a, kKeldAlarmOneShot, 180));
    EXPECT_TRUE(waitsFor(HandClock::kStart + 180));
    EXPECT_EQ(0, KeldAlarmSet(b, kKeldAlarmOneShot, 5));
    EXPECT_TRUE(waitsFor(HandClock::kStart + 5));
    EXPECT_EQ(0, KeldAlarmSet(b, kKeldAlarmOneShot, 0));
    EXPECT_TRUE(waitsFor(HandClock::kStart + 180));
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

TEST_F(AlarmTest, AnAlarmDisarmedWhileItIsWaitedForDoesNotFire)
{
    EXPECT_EQ(0, KeldAlarmSet(a, kKeldAlarmOneShot, 10));
    EXPECT_EQ(0, KeldAlarmSet(b, kKeldAlarmOneShot, 12));
    EXPECT_EQ("", After(9));
    EXPECT_EQ(1U, SetAndTellRemaining(a, 0));
    EXPECT_EQ("b12 ", After(100));
}

TEST_F(AlarmTest, AHandlerMayArmAndDisarmItselfAndOthers)
{
    static int own, other;
    own = KeldAlarmRegister([] {
        Note("self");
        EXPECT_EQ(0, KeldAlarmSet(own, kKeldAlarmOneShot, 3));
        EXPECT_EQ(0, KeldAlarmSet(other, kKeldAlarmOneShot, 0)); // due in the same second
    });
    other = KeldAlarmRegister([] { Note("other"); });
    EXPECT_EQ(0, KeldAlarmSet(other, kKeldAlarmPeriodic, 3));
    EXPECT_EQ(0, KeldAlarmSet(own, kKeldAlarmOneShot, 3));
    EXPECT_EQ("self3 self6 self9 ", After(10));
    EXPECT_EQ(0, KeldAlarmSet(own, kKeldAlarmOneShot, 0));
}

// They wait for the wall clock, which moves the moment with it.
TEST_F(AlarmTest, AClockThatIsSetMovesTheMoment)
{
    EXPECT_EQ(0, KeldAlarmSet(a, kKeldAlarmOneShot, 10));
    clock.Set(HandClock::kStart - 100);
    EXPECT_EQ("", After(109));
    EXPECT_EQ("a10 ", After(1));

    EXPECT_EQ(0, KeldAlarmSet(a, kKeldAlarmOneShot, 10));
    clock.Set(HandClock::kStart - 100);
    EXPECT_EQ(120U, SetAndTellRemaining(a, 5));
    clock.Set(HandClock::kStart + 50);
    EXPECT_EQ("a50 ", After(0));
}

TEST(AlarmStepTest, TheLowestNumberOfThoseDueFiresFirstAndTheEarliestIsWaitedFor)
{
    KeldAlarmMap alarms;
    const KeldAlarmHandler one = [] {}, two = [] {};
    alarms[1] = {.mode = kKeldAlarmOneShot, .interval = 10, .due = 1010, .handler = one};
    alarms[2] = {.mode = kKeldAlarmPeriodic, .interval = 4, .due = 1004, .handler = two};
    alarms[3] = {};
    EXPECT_EQ(1004U, KeldAlarmNextStep(alarms, 1003).waitUntil);
    EXPECT_EQ(one, KeldAlarmNextStep(alarms, 1010).fire);
    EXPECT_EQ(two, KeldAlarmNextStep(alarms, 1010).fire);
    EXPECT_EQ(1014U, KeldAlarmNextStep(alarms, 1010).waitUntil);
    alarms[2].due = 0;
    EXPECT_EQ(nullptr, KeldAlarmNextStep(alarms, 9999).fire);
    EXPECT_EQ(std::nullopt, KeldAlarmNextStep(alarms, 9999).waitUntil);
}

} // namespace
