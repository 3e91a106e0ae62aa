#include "kltlibs/ktime.h"

#include <chrono>

namespace {

// The last whole second that the clock's own type, nanoseconds in 64 bits, can hold.
constexpr std::uint64_t kWaitSecondsMax = INT64_MAX / 1'000'000'000;

KTimeSource *source = nullptr;

} // namespace

void KTime_SetSource(KTimeSource *newSource) { source = newSource; }

int KTime_GetTimeOfDay(timeval *now)
{
    return source != nullptr ? source->GetTimeOfDay(now) : gettimeofday(now, nullptr);
}

int KTime_GetRealtime(timespec *now)
{
    return source != nullptr ? source->GetRealtime(now) : clock_gettime(CLOCK_REALTIME, now);
}

std::uint64_t KTime_MonotonicSeconds()
{
    if (source != nullptr) return source->MonotonicSeconds();
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec);
}

std::uint64_t KTime_WallSeconds()
{
    timeval now;
    return KTime_GetTimeOfDay(&now) == 0 ? static_cast<std::uint64_t>(now.tv_sec) : 0;
}

void KTime_WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                     std::optional<std::uint64_t> wallSeconds)
{
    if (source != nullptr)
        source->WaitUntil(condition, lock, wallSeconds);
    else if (!wallSeconds || *wallSeconds > kWaitSecondsMax)
        condition.wait(lock);
    else
        condition.wait_until(lock,
                             std::chrono::system_clock::time_point(std::chrono::seconds(*wallSeconds)));
}
