#include "handClock.h"

#include "waitFor.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

std::uint64_t HandClock::Now() const
{
    const std::lock_guard guard(mMutex);
    return mNow;
}

void HandClock::Set(std::uint64_t seconds, std::uint32_t microseconds)
{
    {
        const std::lock_guard guard(mMutex);
        mNow = seconds;
        mMicroseconds = microseconds;
    }
    WakeAll();
}

void HandClock::Advance(std::uint64_t seconds)
{
    const std::uint64_t target = Now() + seconds;
    Settle();
    while (true) {
        {
            const std::lock_guard guard(mMutex);
            if (mNow >= target) return;
            std::uint64_t next = target;
            for (const auto &[thread, waiter] : mWaiters)
                next = std::min(next, waiter.due.value_or(target));
            mMonotonic += next - mNow;
            mNow = next;
        }
        Settle();
    }
}

// Sends every waiter once round its loop, whatever it waits for, and waits until all are parked with
// nothing due. Once round, because a waiter that somebody else has just notified, of an alarm newly
// set, looks parked until it has got its mutex.
void HandClock::Settle()
{
    std::unique_lock lock(mMutex);
    std::map<std::thread::id, std::uint64_t> before;
    for (const auto &[thread, waiter] : mWaiters)
        before[thread] = waiter.rounds;
    lock.unlock();
    WakeAll();
    lock.lock();
    const auto settled = [&] {
        return std::all_of(mWaiters.begin(), mWaiters.end(), [&](const auto &entry) {
            const auto &[thread, waiter] = entry;
            return waiter.parked && waiter.rounds != before[thread];
        });
    };
    if (!mChanged.wait_for(lock, kWaitLimit, settled))
        GiveUp("a thread that has waited does not come back to wait");
}

// A notification with the waiter's mutex held cannot fall between its look at the clock and its wait.
void HandClock::WakeAll()
{
    std::vector<Waiter> waiters;
    {
        const std::lock_guard guard(mMutex);
        for (const auto &[thread, waiter] : mWaiters)
            if (waiter.parked) waiters.push_back(waiter);
    }
    for (const Waiter &waiter : waiters) {
        const std::lock_guard guard(*waiter.mutex);
        waiter.condition->notify_all();
    }
}

void HandClock::AwaitWaiter()
{
    std::unique_lock lock(mMutex);
    if (!mChanged.wait_for(lock, kWaitLimit, [&] { return !mWaiters.empty(); })) GiveUp("no thread waits");
}

int HandClock::GetTimeOfDay(timeval *now)
{
    const std::lock_guard guard(mMutex);
    now->tv_sec = static_cast<time_t>(mNow);
    now->tv_usec = static_cast<suseconds_t>(mMicroseconds);
    return 0;
}

int HandClock::GetRealtime(timespec *now)
{
    const std::lock_guard guard(mMutex);
    now->tv_sec = static_cast<time_t>(mNow);
    now->tv_nsec = static_cast<long>(mMicroseconds) * 1000;
    return 0;
}

std::uint64_t HandClock::MonotonicSeconds()
{
    const std::lock_guard guard(mMutex);
    return mMonotonic;
}

void HandClock::WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                          std::optional<std::uint64_t> wallSeconds)
{
    {
        const std::lock_guard guard(mMutex);
        if (wallSeconds && *wallSeconds <= mNow) return;
        Waiter &waiter = mWaiters[std::this_thread::get_id()];
        waiter = {true, waiter.rounds + 1, &condition, lock.mutex(), wallSeconds};
        mChanged.notify_all();
    }
    condition.wait(lock);
    const std::lock_guard guard(mMutex);
    mWaiters[std::this_thread::get_id()].parked = false;
}

void HandClock::GiveUp(const char *what) const
{
    std::fprintf(stderr, "HandClock at %llu: %s\n", static_cast<unsigned long long>(mNow), what);
    std::abort();
}
