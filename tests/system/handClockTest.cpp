// The clock that every timed test trusts.
#include "handClock.h"

#include <gtest/gtest.h>

namespace {

// An alarm thread in its simplest form.
class HandClockTest : public testing::Test {
protected:
    void SetUp() override
    {
        thread = std::thread([this] { Run(); });
        clock.AwaitWaiter();
    }

    void TearDown() override
    {
        {
            const std::lock_guard guard(mutex);
            ended = true;
        }
        changed.notify_all();
        thread.join();
    }

    void Arm(std::uint64_t seconds, std::uint64_t every = 0)
    {
        const std::lock_guard guard(mutex);
        due = clock.Now() + seconds;
        period = every;
        changed.notify_all();
    }

    std::vector<std::uint64_t> Fired() const
    {
        const std::lock_guard guard(mutex);
        return fired;
    }

    void Run()
    {
        std::unique_lock lock(mutex);
        while (!ended)
            if (const std::uint64_t now = clock.Now(); due && *due <= now) {
                fired.push_back(now - HandClock::kStart);
                due = period == 0 ? std::nullopt : std::optional(now + period);
            } else {
                clock.WaitUntil(changed, lock, due);
            }
    }

    HandClock clock;
    mutable std::mutex mutex;
    std::condition_variable changed;
    std::optional<std::uint64_t> due;
    std::uint64_t period = 0;
    std::vector<std::uint64_t> fired;
    bool ended = false;
    std::thread thread;
};

using Seconds = std::vector<std::uint64_t>;

TEST_F(HandClockTest, AnAlarmJustArmedFiresAtItsSecond)
{
    for (std::size_t round = 1; round <= 500; ++round) {
        Arm(180);
        clock.Advance(179);
        ASSERT_EQ(round - 1, Fired().size());
        clock.Advance(1);
        ASSERT_EQ(round, Fired().size());
        ASSERT_EQ(180 * round, Fired().back());
    }
}

TEST_F(HandClockTest, APeriodicAlarmFiresAtEveryOneOfItsSeconds)
{
    Arm(5, 7);
    clock.Advance(19);
    EXPECT_EQ((Seconds{5, 12, 19}), Fired());
}

TEST_F(HandClockTest, ASteppedClockWakesWhomItMakesDue)
{
    Arm(10);
    clock.Set(HandClock::kStart - 100);
    clock.Advance(109);
    EXPECT_EQ(Seconds{}, Fired());
    clock.Set(HandClock::kStart + 50);
    clock.Advance(0);
    EXPECT_EQ(Seconds{50}, Fired());
}

} // namespace
