#include "handClock.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

constexpr std::chrono::minutes kPatience{1}; // for sanitizers on a loaded machine

} // namespace

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
    MustSettle();
    while (Now() < target) {
        MoveTowards(target);
        MustSettle();
    }
}

void HandClock::MoveTowards(std::uint64_t target)
{
    const std::lock_guard guard(mMutex);
    std::uint64_t next = target;
    for (const auto &[thread, waiter] : mWaiters)
        if (waiter.parked) next = std::min(next, waiter.due.value_or(target));
    mMonotonic += next - mNow;
    mNow = next;
}

bool HandClock::Settle(std::chrono::milliseconds limit)
{
    std::unique_lock lock(mMutex);
    std::map<std::thread::id, std::uint64_t> before;
    for (const auto &[thread, waiter] : mWaiters)
        before[thread] = waiter.rounds;
    lock.unlock();
    WakeAll();
    lock.lock();
    return mChanged.wait_for(lock, limit, [&] {
        return AllParked() && std::ranges::all_of(mWaiters, [&](const auto &entry) {
                   return entry.second.rounds != before[entry.first];
               });
    });
}

void HandClock::MustSettle()
{
    if (!Settle(kPatience)) GiveUp("a thread that has waited does not come back to wait");
}

bool HandClock::AllParked() const
{
    return std::ranges::all_of(mWaiters, [](const auto &entry) { return entry.second.parked; });
}

bool HandClock::IsParked() const
{
    const std::lock_guard guard(mMutex);
    return !mWaiters.empty() && AllParked();
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
    if (!mChanged.wait_for(lock, kPatience, [&] { return !mWaiters.empty(); })) GiveUp("no thread waits");
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
