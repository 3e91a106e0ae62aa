// The daemon with a clock that is moved by hand, for tests.
//
// KELD_CLOCK_FD names a descriptor on which it is told "advance N\n" and "set N\n" (seconds) and answers
// "ok\n"; KELD_OPTIONAL_AGENTS=1 starts the optional agents too.
#include "handClock.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <keldMain.h>
#include <thread>

namespace {

void ObeyCommands(HandClock &clock, int fd)
{
    std::FILE *commands = fdopen(fd, "r");
    char line[64];
    while (commands != nullptr && std::fgets(line, sizeof line, commands) != nullptr) {
        unsigned long long seconds = 0;
        const char *answer = "ok\n";
        if (std::sscanf(line, "advance %llu", &seconds) == 1) {
            clock.AwaitWaiter();
            clock.Advance(seconds);
        } else if (std::sscanf(line, "set %llu", &seconds) == 1) {
            clock.Set(seconds);
        } else {
            answer = "what?\n";
        }
        dprintf(fd, "%s", answer);
    }
}

// Signals are the main thread's.
void StartObeying(HandClock &clock, int fd)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(ObeyCommands, std::ref(clock), fd).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

} // namespace

int main(int argc, char **argv)
{
    static HandClock &clock = *new HandClock; // threads outlive main
    KTime_SetSource(&clock);
    if (const char *fd = std::getenv("KELD_CLOCK_FD")) StartObeying(clock, std::atoi(fd));
    const char *optional = std::getenv("KELD_OPTIONAL_AGENTS");
    return KeldMain(argc, argv, optional != nullptr && std::strcmp(optional, "1") == 0);
}
