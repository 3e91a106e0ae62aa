#include "eventLoop.h"

#include "failure.h"

#include <csignal>
#include <cstring>
#include <fmt/format.h>
#include <sys/epoll.h>
#include <utility>

namespace {

void Check(int result, const char *step)
{
    if (result < 0) throw Failure(kExitFailed, fmt::format("{}: {}", step, std::strerror(-result)));
}

void Attempt(const std::function<void()> &act)
{
    try {
        act();
    } catch (const std::exception &error) {
        fmt::print(stderr, "keld-sources: {}\n", error.what());
    }
}

// A timer may be this much late, so that the kernel can join wake-ups.
constexpr std::chrono::milliseconds kTimerAccuracy{100};

} // namespace

EventLoop::EventLoop(std::chrono::seconds period) : mPeriod(period)
{
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    sigprocmask(SIG_BLOCK, &ends, nullptr);
    Check(sd_event_new(&mLoop), "event loop");
    for (const int signal : {SIGTERM, SIGINT}) // no handler of its own: the loop ends
        Check(sd_event_add_signal(mLoop, nullptr, signal, nullptr, nullptr), "signals");
}

EventLoop::~EventLoop()
{
    mTick.reset();
    sd_event_unref(mLoop);
}

EventLoop::WatchPtr EventLoop::OnEvents(int fd, std::uint32_t events,
                                        std::function<void(std::uint32_t)> act)
{
    auto watch = std::make_unique<Watch>();
    watch->mDo = std::move(act);
    sd_event_source *source = nullptr;
    Check(sd_event_add_io(mLoop, &source, fd, events, Watch::Ready, watch.get()), "descriptor");
    watch->mSource.reset(source);
    return watch;
}

EventLoop::WatchPtr EventLoop::OnTimer(std::function<void()> act)
{
    auto watch = std::make_unique<Watch>();
    watch->mDo = [act = std::move(act)](std::uint32_t) { act(); };
    sd_event_source *source = nullptr;
    const auto accuracy = std::chrono::microseconds(kTimerAccuracy).count();
    Check(sd_event_add_time_relative(mLoop, &source, CLOCK_MONOTONIC, 0,
                                     static_cast<std::uint64_t>(accuracy), Watch::Fired, watch.get()),
          "timer");
    watch->mSource.reset(source);
    Check(sd_event_source_set_enabled(source, SD_EVENT_OFF), "timer");
    return watch;
}

void EventLoop::EachPeriod(std::function<void()> look)
{
    mLooks.push_back(std::move(look));
    if (mTick) return;
    mTick = OnTimer([this] {
        mTick->Arm(mPeriod);
        LookNow();
    });
    mTick->Arm(mPeriod);
}

void EventLoop::LookNow()
{
    for (const auto &look : mLooks)
        Attempt(look);
}

void EventLoop::Run()
{
    const int result = sd_event_loop(mLoop);
    Check(result, "event loop");
    if (result > 0) throw Failure(kExitFailed, "the connection to the D-Bus has ended");
}

void EventLoop::Watch::SetEvents(std::uint32_t events)
{
    (void)sd_event_source_set_io_events(mSource.get(), events);
}

void EventLoop::Watch::Arm(std::chrono::milliseconds delay)
{
    int enabled = SD_EVENT_OFF;
    if (sd_event_source_get_enabled(mSource.get(), &enabled) < 0 || enabled != SD_EVENT_OFF) return;
    const auto microseconds = std::chrono::microseconds(delay).count();
    (void)sd_event_source_set_time_relative(mSource.get(), static_cast<std::uint64_t>(microseconds));
    (void)sd_event_source_set_enabled(mSource.get(), SD_EVENT_ONESHOT);
}

void EventLoop::Watch::Do(std::uint32_t events)
{
    const auto act = mDo; // a copy: it may end its own watch
    Attempt([&] { act(events); });
}

int EventLoop::Watch::Ready(sd_event_source *, int, std::uint32_t events, void *watch)
{
    static_cast<Watch *>(watch)->Do(events);
    return 0;
}

int EventLoop::Watch::Fired(sd_event_source *, std::uint64_t, void *watch)
{
    static_cast<Watch *>(watch)->Do(0);
    return 0;
}
