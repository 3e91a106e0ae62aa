// keld-lab: the daemon with a clock that is moved by hand, for playing stories and for tests. Never a
// service: it obeys the program that started it, and ends with it.
//
// KELD_LAB_FD names its end of a socket pair, on which it is told, one line each,
//
//     settle          return when all that is due has happened
//     clock to N      go to the next second at which something falls due, at most to N, and settle
//     clock set N     set the clock, also back, and settle
//     advance N       go on by N seconds under traffic that never settles: alarms alone are waited for
//
// N being seconds, since the epoch but for the last. It answers "1772366400 ok" with the clock's present
// time, or "1772366400 busy: SCSICorrelator posts". KELD_LAB_TIME is the time at which the clock starts, in
// place of 2026-03-01 12:00:00 UTC; KELD_LOG_FD is where the log's lines go; KELD_OPTIONAL_AGENTS=1 starts
// the optional agents too. The scratch partition's link is "scratch" in the run directory.
#include "laboratory.h"
#include "logFile.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <keldDomains.h>
#include <keldMain.h>
#include <kltlibs/ksyslog.h>
#include <pthread.h>

namespace {

std::string Obey(Laboratory &laboratory, HandClock &clock, const char *line)
{
    unsigned long long seconds = 0;
    std::string busy;
    if (std::strcmp(line, "settle\n") == 0) {
        busy = laboratory.Settle();
    } else if (std::sscanf(line, "clock to %llu", &seconds) == 1) {
        busy = laboratory.MoveTowards(seconds);
    } else if (std::sscanf(line, "clock set %llu", &seconds) == 1) {
        busy = laboratory.Set(seconds);
    } else if (std::sscanf(line, "advance %llu", &seconds) == 1) {
        clock.AwaitWaiter();
        clock.Advance(seconds);
    } else {
        return "what?";
    }
    return busy.empty() ? "ok" : "busy: " + busy;
}

void ObeyUntilTheEnd(Laboratory &laboratory, HandClock &clock, int fd)
{
    std::FILE *commands = fdopen(fd, "r");
    char line[64];
    while (commands != nullptr && std::fgets(line, sizeof line, commands) != nullptr) {
        const std::string answer = Obey(laboratory, clock, line);
        dprintf(fd, "%llu %s\n", static_cast<unsigned long long>(clock.Now()), answer.c_str());
    }
    kill(getpid(), SIGTERM);
}

// Signals are the main thread's.
void StartObeying(Laboratory &laboratory, HandClock &clock, int fd)
{
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    std::thread(ObeyUntilTheEnd, std::ref(laboratory), std::ref(clock), fd).detach();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

// The run directory of a host of one's own; empty for anything else.
std::string OwnRunDirectory()
{
    const char *named = std::getenv("KALTOR_RUN_DIR");
    std::string path = named != nullptr ? named : "";
    while (path.ends_with('/'))
        path.pop_back();
    std::error_code error;
    const auto service = std::filesystem::weakly_canonical("/var/run/kaltor", error);
    const bool own = path.starts_with('/') && std::filesystem::weakly_canonical(path, error) != service;
    return own && !error ? path : "";
}

int Refuse(const char *why)
{
    std::fprintf(stderr, "keld-lab: %s\n", why);
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    static const std::string &runDirectory = *new std::string(OwnRunDirectory()); // threads outlive main
    if (runDirectory.empty())
        return Refuse(
            "KALTOR_RUN_DIR must name a run directory of its own, not the service's /var/run/kaltor");
    const char *fd = std::getenv("KELD_LAB_FD");
    if (fd == nullptr || fcntl(std::atoi(fd), F_SETFD, FD_CLOEXEC) != 0)
        return Refuse("not to be started by hand: keladm replay --check does, for a story");

    const char *time = std::getenv("KELD_LAB_TIME");
    HandClock &clock =
        *new HandClock(time != nullptr ? std::strtoull(time, nullptr, 10) : HandClock::kStart);
    KTime_SetSource(&clock);
    Laboratory &laboratory = *new Laboratory(clock);
    KeldSetLookOut(&laboratory);
    if (const char *file = std::getenv("KELD_LOG_FD")) LogFile::descriptor = std::atoi(file);
    KSyslog_SetSink(LogFile::Write);
    static const std::string &scratchLink = *new std::string(runDirectory + "/scratch");
    keldVfatScratchLink = scratchLink.c_str();
    StartObeying(laboratory, clock, std::atoi(fd));
    const char *optional = std::getenv("KELD_OPTIONAL_AGENTS");
    return KeldMain(argc, argv, optional != nullptr && std::strcmp(optional, "1") == 0);
}
