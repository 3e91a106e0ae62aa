// Time: the one place that reads clocks and waits for them.
//
// Without a source set, every call is the ordinary libc call. A test sets a source of its own before
// the first thread starts and moves time by hand.
#ifndef KLTLIBS_KTIME_H
#define KLTLIBS_KTIME_H

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <sys/time.h>
#include <time.h>

class KTimeSource {
public:
    virtual ~KTimeSource() = default;
    virtual int GetTimeOfDay(timeval *now) = 0; // 0, or -1 with errno
    virtual int GetRealtime(timespec *now) = 0; // 0, or -1 with errno
    virtual std::uint64_t MonotonicMicroseconds() = 0;
    virtual void WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                           std::optional<std::uint64_t> wallSeconds) = 0;
};

// The source stays the caller's and must outlive every thread that asks for the time; null goes back
// to libc.
void KTime_SetSource(KTimeSource *source);

int KTime_GetTimeOfDay(timeval *now);
int KTime_GetRealtime(timespec *now);
std::uint64_t KTime_MonotonicSeconds();
std::uint64_t KTime_MonotonicMicroseconds();

// Local time, with the zone looked at anew at most once a second.
void KTime_LocalTime(time_t seconds, struct tm *local);

// Whole seconds of the wall clock; 0 when it cannot be read.
std::uint64_t KTime_WallSeconds();

// Waits on condition until it is notified or the wall clock reaches wallSeconds; without a time, until it
// is notified. May return sooner, and with a time does so at least once a second: a wall clock that is set
// back would otherwise hold the waiter for as long as it was set back. lock is held before and after.
void KTime_WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                     std::optional<std::uint64_t> wallSeconds);

#endif
