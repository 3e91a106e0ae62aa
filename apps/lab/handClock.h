// A clock that is moved by hand.
#ifndef LAB_HANDCLOCK_H
#define LAB_HANDCLOCK_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <kltlibs/ktime.h>
#include <map>
#include <mutex>
#include <optional>
#include <thread>

// The time stands still until somebody moves it. Install it with KTime_SetSource before the first
// thread starts; it must outlive every thread that asks for the time.
//
// Any thread may read and wait. One thread moves it, holding none of the waiters' mutexes. A thread
// that has waited once is expected to come back and wait again, as an alarm thread does.
class HandClock : public KTimeSource {
public:
    static constexpr std::uint64_t kStart = 1772366400; // 2026-03-01 12:00:00 UTC

    explicit HandClock(std::uint64_t seconds = kStart) : mNow(seconds) {}

    std::uint64_t Now() const;

    // Moves to the given time, also backwards; wakes whoever waits but does not wait for it. Leaves the
    // monotonic clock alone, as a step of the wall clock does.
    void Set(std::uint64_t seconds, std::uint32_t microseconds = 0);

    // Moves forward, stopping at every second at which somebody's wait falls due until all that follows
    // from it is done: one-shot and periodic chains fire in order, as if the seconds had passed.
    //
    // Returns when every thread that has ever waited is parked with nothing due. Aborts with a message
    // when that does not come about within a minute.
    void Advance(std::uint64_t seconds);

    // Returns when a thread waits: a clock that is moved before its alarm thread has started would
    // leave that thread behind.
    void AwaitWaiter();

    // ---- The steps that Advance is made of, for whoever has more to look at between them

    // Sends every waiter once round its loop, whatever it waits for: true when all are parked again with
    // nothing due, false when they are not within the limit. Once round, because a waiter that somebody
    // else has just notified, of an alarm newly set, looks parked until it has got its mutex.
    bool Settle(std::chrono::milliseconds limit);

    // True while every thread that has ever waited is parked, and there is one.
    bool IsParked() const;

    // To the first second, of those up to target, at which somebody's wait falls due. Settle behind it.
    void MoveTowards(std::uint64_t target);

    int GetTimeOfDay(timeval *now) override;
    int GetRealtime(timespec *now) override;
    std::uint64_t MonotonicSeconds() override;
    void WaitUntil(std::condition_variable &condition, std::unique_lock<std::mutex> &lock,
                   std::optional<std::uint64_t> wallSeconds) override;

private:
    struct Waiter {
        bool parked = false;
        std::uint64_t rounds = 0; // waits begun
        std::condition_variable *condition = nullptr;
        std::mutex *mutex = nullptr;
        std::optional<std::uint64_t> due;
    };

    void WakeAll();
    bool AllParked() const; // mMutex held
    void MustSettle();
    [[noreturn]] void GiveUp(const char *what) const;

    mutable std::mutex mMutex; // taken with a waiter's mutex held, never the other way round
    std::condition_variable mChanged;
    std::map<std::thread::id, Waiter> mWaiters;
    std::uint64_t mNow;
    std::uint32_t mMicroseconds = 0;
    std::uint64_t mMonotonic = 1000;
};

#endif
