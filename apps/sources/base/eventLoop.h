// The one loop in which everything happens: descriptors, timers, and the shared period.
#ifndef SOURCES_EVENTLOOP_H
#define SOURCES_EVENTLOOP_H

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <systemd/sd-event.h>
#include <vector>

// One thread. What a callback throws is named in the log, and the loop goes on.
class EventLoop {
public:
    // A descriptor or a timer that is watched for as long as this lives.
    class Watch {
    public:
        // For a descriptor: what to wait for, as epoll has it.
        void SetEvents(std::uint32_t events);
        // For a timer: fires once, when this time has passed. An armed one keeps its earlier time.
        void Arm(std::chrono::milliseconds delay);

    private:
        friend EventLoop;
        void Do(std::uint32_t events);
        static int Ready(sd_event_source *source, int fd, std::uint32_t events, void *watch);
        static int Fired(sd_event_source *source, std::uint64_t now, void *watch);

        struct Unref {
            void operator()(sd_event_source *source) const { sd_event_source_disable_unref(source); }
        };
        std::unique_ptr<sd_event_source, Unref> mSource;
        std::function<void(std::uint32_t events)> mDo;
    };
    using WatchPtr = std::unique_ptr<Watch>;

    // SIGTERM and SIGINT end Run; both are blocked for the process. Throws Failure.
    explicit EventLoop(std::chrono::seconds period);
    ~EventLoop();
    EventLoop(const EventLoop &) = delete;
    EventLoop &operator=(const EventLoop &) = delete;

    // The descriptor stays the caller's and must outlive the watch. Throw Failure.
    WatchPtr OnEvents(int fd, std::uint32_t events, std::function<void(std::uint32_t events)> act);
    WatchPtr OnTimer(std::function<void()> act);

    // What has to be looked at, because nothing tells of it, is looked at once in each period, all of it
    // with one wake-up. One that throws keeps no other from its look. Only what is registered here makes
    // the loop wake up for nothing.
    void EachPeriod(std::function<void()> look);
    void LookNow(); // all of that, without waiting for the period's end

    void Run(); // throws Failure
    sd_event *Get() const { return mLoop; }

private:
    sd_event *mLoop = nullptr;
    std::chrono::seconds mPeriod;
    std::vector<std::function<void()>> mLooks;
    WatchPtr mTick;
};

#endif
