// The system clock: steps, through a timer that the kernel cancels when the clock is set; synchronisation,
// through adjtimex once in a period, since nothing tells of it.

#include "source.h"

#include "clockWatch.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <kltlibs/uniquefd.h>
#include <limits>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <sys/timex.h>

namespace {

constexpr long kErrorLimitMicroseconds = 16'000'000; // the kernel's own

std::int64_t Nanoseconds(clockid_t clock)
{
    timespec now{};
    clock_gettime(clock, &now);
    return now.tv_sec * std::int64_t{1'000'000'000} + now.tv_nsec;
}

ClockLook Look()
{
    timex state{};
    const int result = adjtimex(&state);
    return {Nanoseconds(CLOCK_REALTIME), Nanoseconds(CLOCK_BOOTTIME),
            result != TIME_ERROR && (state.status & STA_UNSYNC) == 0,
            state.maxerror >= kErrorLimitMicroseconds};
}

class ClockSource : public Source {
public:
    explicit ClockSource(const Host &host) : mClock(host.emit)
    {
        mTimer.Reset(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
        if (!mTimer) throw CannotRun(std::strerror(errno));
        Arm();
        mClock.Take(Look(), false);
        mWatch = host.loop.OnEvents(mTimer.Get(), EPOLLIN, [this](std::uint32_t) {
            std::uint64_t expired = 0;
            const ssize_t count = read(mTimer.Get(), &expired, sizeof expired);
            const bool stepped = count < 0 && errno == ECANCELED;
            Arm();
            mClock.Take(Look(), stepped);
        });
        host.loop.EachPeriod([this] { mClock.Take(Look(), false); });
    }

private:
    // Sets the timer to a time that never comes: only a step of the clock ends it.
    void Arm() const
    {
        itimerspec never{};
        never.it_value.tv_sec = std::numeric_limits<std::time_t>::max();
        (void)timerfd_settime(mTimer.Get(), TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr);
    }

    ClockWatch mClock;
    UniqueFd mTimer;
    EventLoop::WatchPtr mWatch;
};

} // namespace

const SourceKind kClockSource{
    "clock",
    "nothing",
    "the system clock: steps at once, its synchronisation once in a period",
    ClockWatch::Rows(),
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<ClockSource>(host); },
};
