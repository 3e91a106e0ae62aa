#include "kltlibs/ktime.h"

#include <algorithm>
#include <atomic>
#include <chrono>

namespace {

// The last whole second that the clock's own type, nanoseconds in 64 bits, can hold.
constexpr std::uint64_t kWaitSecondsMax = INT64_MAX / 1'000'000'000;

constexpr std::chrono::seconds kLookAgain{1};

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

std::uint64_t KTime_MonotonicMicroseconds()
{
    if (source != nullptr) return source->MonotonicMicroseconds();
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

std::uint64_t KTime_MonotonicSeconds() { return KTime_MonotonicMicroseconds() / 1'000'000; }

// localtime_r does not look at the zone again, tzset does and costs a look at the zone file: once a
// second is soon enough for a zone that changes. One thread at a time looks, and none waits for it.
void KTime_LocalTime(time_t seconds, struct tm *local)
{
    [[maybe_unused]] static const bool first = (tzset(), true); // later, localtime_r has nothing to set up
    static std::atomic<time_t> zoneSeenAt{-1};
    static std::atomic_flag looking;
    if (zoneSeenAt.load(std::memory_order_relaxed) != seconds &&
        !looking.test_and_set(std::memory_order_acquire)) {
        zoneSeenAt.store(seconds, std::memory_order_relaxed);
        tzset();
        looking.clear(std::memory_order_release);
    }
    localtime_r(&seconds, local);
}

std::uint64_t KTime_WallSeconds()
{
    timeval now;
    return KTime_GetTimeOfDay(&now) == 0 ? static_cast<std::uint64_t>(now.tv_sec) : 0;
}

void KTime_WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                     std::optional<std::uint64_t> wallSeconds)
{
    if (source != nullptr) {
        source->WaitUntil(condition, lock, wallSeconds);
    } else if (!wallSeconds) {
        condition.wait(lock);
    } else {
        const auto now = std::chrono::system_clock::now();
        const auto left =
            std::chrono::seconds(std::min(*wallSeconds, kWaitSecondsMax)) - now.time_since_epoch();
        if (left > left.zero()) condition.wait_for(lock, std::min<decltype(left)>(left, kLookAgain));
    }
}
