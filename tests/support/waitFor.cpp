#include "waitFor.h"

#include <ctime>
#include <poll.h>
#include <thread>

bool WaitUntil(const std::function<bool()> &condition, std::chrono::milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

short WaitForEvents(int fd, short events, std::chrono::milliseconds limit)
{
    pollfd state{fd, events, 0};
    return poll(&state, 1, static_cast<int>(limit.count())) == 1 ? state.revents : short{0};
}

void UseProcessorTime(std::chrono::milliseconds amount)
{
    const auto used = [] {
        timespec now;
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
        return std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
    };
    const auto end = used() + amount;
    while (used() < end)
        continue;
}
