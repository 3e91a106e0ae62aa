// How keladm judges a daemon by its status file and by what is seen from outside.

#include "statusFormats.h"

#include <cstring>
#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

constexpr std::uint64_t kSecond = 1'000'000;
constexpr std::size_t kMain = kKeldStatusMainThread;
constexpr std::size_t kNet = kKeldStatusFirstAgent;
constexpr std::size_t kScsi = kNet + 1;

// A daemon with two agents that is well, 1000 s after the boot.
struct Host {
    StatusFile file{StatusFile::Kind::Good, "", {}};
    KeldStatusFile &content = file.content;
    StatusOutside outside{
        2000000 * kSecond, 1000 * kSecond, "boot", 4711, StatusProcess{99, 'S', false}, {}};

    Host()
    {
        std::memcpy(content.magic, kKeldStatusMagic, sizeof content.magic);
        content.version = kKeldStatusVersion;
        content.size = sizeof content;
        content.process = 4711;
        content.processStart = 99;
        content.phase = static_cast<std::uint64_t>(KeldPhase::Serves);
        content.agentsStarted = 2;
        content.limitMax = 1000;
        const char *names[] = {"main", "KeldAlarm", "NetCorrelator", "SCSICorrelator"};
        for (std::size_t i = 0; i < std::size(names); ++i) {
            std::strcpy(content.threads[i].name, names[i]);
            Stands(i, KeldStanding::Idle, 990 * kSecond);
        }
        std::strcpy(content.daemonVersion, "0.1.0");
        std::strcpy(content.boot, "boot");
        outside.sockets.emplace().receiver = {0, 128};
    }

    void Stands(std::size_t thread, KeldStanding standing, std::uint64_t microseconds, std::size_t of = 0)
    {
        content.threads[thread].state =
            (1000 * kSecond - microseconds) << kKeldStandingBits | (static_cast<unsigned>(standing) + of);
    }
    void Ends(KeldPhase phase = KeldPhase::Serves)
    {
        content.phase = 16 << 8 | static_cast<unsigned>(phase);
        outside.process.reset();
        outside.serving.reset();
    }
    void Reread(std::size_t size = sizeof(KeldStatusFile))
    {
        file = DecodeStatusFile(std::as_bytes(std::span(&content, 1)).first(size));
    }
};

struct Case {
    const char *sentence; // its beginning
    void (*change)(Host &host);
};

const Case kCases[] = {
    {"well: nothing stands still", [](Host &) {}},
    {"well: it is version 0.1.0, and no longer", [](Host &h) { h.outside.process->isReplaced = true; }},
    {"well: nothing", [](Host &h) { h.Stands(kScsi, KeldStanding::Receiver, 999'999); }},
    {"degraded: SCSICorrelator: posting, waits for the receiver for 1.0 s; see to the management agent",
     [](Host &h) { h.Stands(kScsi, KeldStanding::Receiver, 1'000'000); }},
    {"degraded: SCSICorrelator: ", [](Host &h) { h.Stands(kScsi, KeldStanding::Receiver, 4'999'999); }},
    {"stuck: SCSICorrelator: ", [](Host &h) { h.Stands(kScsi, KeldStanding::Receiver, 5'000'000); }},
    {"stuck: the main thread waits for SCSICorrelator's pipe for 1 min 5 s: every channel waits with it "
     "(SCSICorrelator: posting, waits for the receiver); see to the management agent",
     [](Host &h) {
         h.Stands(kMain, KeldStanding::Pipe, 65 * kSecond, kScsi);
         h.Stands(kScsi, KeldStanding::Receiver, 0);
     }},
    {"well: nothing",
     [](Host &h) { h.Stands(kKeldStatusAlarmThread, KeldStanding::Retries, 900 * kSecond); }},
    {"stuck: process 4711 is stopped", [](Host &h) { h.outside.process->state = 'T'; }},
    {"degraded: agent NetCorrelator has ended", [](Host &h) { h.Stands(kNet, KeldStanding::Ended, 0); }},
    {"degraded: 1 agent could not be started", [](Host &h) { h.content.agentsStarted = 3; }},
    {"degraded: 3 events wait", [](Host &h) { h.content.eventsWaiting = 3; }},
    {"degraded: nobody listens", [](Host &h) { h.outside.sockets->receiver.reset(); }},
    {"well: nothing", [](Host &h) { h.outside.sockets.reset(); }}, // not known
    {"degraded: 7 events in this minute were too many",
     [](Host &h) { h.content.limitSince = 2000000 - 59, h.content.limitUsed = 1007; }},
    {"well: nothing", [](Host &h) { h.content.limitSince = 2000000 - 60, h.content.limitUsed = 1007; }},
    {"degraded: the system log does not take every line: 5 lost",
     [](Host &h) { h.content.lostLogLines = 5, h.content.lostLogLineAt = 941 * kSecond; }},
    {"well: nothing", [](Host &h) { h.content.lostLogLines = 5, h.content.lostLogLineAt = 940 * kSecond; }},
    // A process of the same number is another one; so is one that is dead, or of another boot.
    {"not running: process 4711 was killed, or has crashed; start keld", [](Host &h) { h.Ends(); }},
    {"not running: process 4711 was killed",
     [](Host &h) { h.outside.serving = {}, ++h.content.processStart; }},
    {"not running: process 4711 was",
     [](Host &h) { h.outside.serving = {}, h.outside.process->state = 'Z'; }},
    {"not running: process 4711 ended when the host", [](Host &h) { h.Ends(), h.outside.boot = "next"; }},
    {"not running: process 4711 has ended with status 16;", [](Host &h) { h.Ends(KeldPhase::Ended); }},
    {"not running: process 4711 was killed, or has crashed; 2 observations in its pipes were lost; start",
     [](Host &h) { h.Ends(), h.content.queued[kNet] = 5, h.content.threads[kNet].taken = 3; }},
    {"not running: no daemon has served", [](Host &h) { h.Ends(), h.file = {}; }},
    {"degraded: process 12 serves, but how it is cannot be told from keld-status: it is an earlier "
     "daemon's",
     [](Host &h) { h.Ends(), h.outside.serving = 12; }},
    // Files that are none, or another version's.
    {"degraded: process 4711 serves, but how it is cannot be told from keld-status: its layout is version "
     "2",
     [](Host &h) { h.content.version = 2, h.Reread(16); }},
    {"not running: keld-status was left behind and says nothing: it has 12280 bytes",
     [](Host &h) { h.Ends(), h.Reread(12280); }},
    {"degraded: process 4711 serves, but", [](Host &h) { h.content.threads[3].state = 162, h.Reread(); }},
    {"degraded: process 4711 serves, but",
     [](Host &h) { std::memset(h.content.threads[33].name, 'x', 64), h.Reread(); }},
};

} // namespace

TEST(KeladmStatusTest, SaysHowTheDaemonIsAndWhatToDo)
{
    for (const Case &each : kCases) {
        Host host;
        each.change(host);
        EXPECT_THAT(JudgeStatus(host.file, host.outside, "0.1.0").Sentence(), StartsWith(each.sentence));
    }
}

TEST(KeladmStatusTest, MetricsAreCountsOfAllThreadsUnderNamesThatCannotHarm)
{
    Host host;
    std::strcpy(host.content.threads[kNet].name, "a\"b\\c\n");
    host.content.threads[kKeldStatusAlarmThread].deliveries[1] = 1;
    host.content.threads[kScsi].deliveries[1] = 4;
    host.content.eventsWaiting = 1;
    host.outside.process->state = 'T'; // which is worse
    const std::string text = StatusMetrics(JudgeStatus(host.file, host.outside, "0.1.0"));
    for (const char *line : {"keld_health 2\n", "keld_agent_alive{agent=\"a\\\"b\\\\c\\\\n\"} 1\n",
                             "keld_events_total{delivery=\"delivered\"} 5\n"})
        EXPECT_THAT(text, HasSubstr(line));
}
