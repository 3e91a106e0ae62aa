#include "statusReport.h"

#include "journalEntry.h"
#include "statusStanding.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

constexpr std::uint64_t kSecond = 1'000'000;
constexpr std::uint64_t kSlow = 1 * kSecond;  // to stand in one thing for so long is worth telling
constexpr std::uint64_t kStuck = 5 * kSecond; // and for so long is no work any more
constexpr std::uint64_t kLogLossRecent = 60 * kSecond;
constexpr std::uint64_t kMinute = 60;

// 0 where it would be negative: two words of the file are written at slightly different times.
std::uint64_t Difference(std::uint64_t more, std::uint64_t less) { return more > less ? more - less : 0; }

// True also when the file has no boot ID: the daemon may not be allowed to read it.
bool IsSameBoot(const KeldStatusFile &file, const StatusOutside &outside)
{
    return file.boot[0] == '\0' || outside.boot == file.boot;
}

std::string Plural(std::uint64_t count, const char *what)
{
    return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
}

template <class Code, std::size_t Size>
void AddCounts(StatusCounts &counts, const std::uint64_t (&words)[Size])
{
    for (std::size_t i = 0; i < Size; ++i)
        if (words[i] != 0) counts.emplace_back(JournalWord(static_cast<Code>(i)), words[i]);
}

StatusThread Thread(const KeldStatusFile &file, std::size_t place, std::uint64_t now)
{
    const KeldStatusThread &thread = file.threads[place];
    StatusThread found;
    found.name = thread.name;
    found.alive = Standing(thread) != KeldStanding::Unused && Standing(thread) != KeldStanding::Ended;
    found.idle = Standing(thread) == KeldStanding::Idle;
    found.stands = StandsText(file, place);
    found.microseconds = Difference(now, StandsSince(thread));
    found.received = thread.taken;
    found.waiting = Difference(file.queued[place], thread.taken);
    AddCounts<JournalFate>(found.fates, thread.fates);
    return found;
}

void TakeCounts(StatusReport &report, const KeldStatusFile &file, const StatusOutside &outside)
{
    report.counted = true;
    report.process = file.process;
    report.startedAt = file.startedAt;
    report.version = file.daemonVersion;
    std::uint64_t lastChange = 0;
    for (const KeldStatusThread &thread : file.threads)
        lastChange = std::max(lastChange, StandsSince(thread));
    if (!report.running && IsSameBoot(file, outside))
        report.endedAt = outside.wall - std::min(outside.wall, Difference(outside.monotonic, lastChange));
    // What a thread stood in when it ended does not last any longer.
    const std::uint64_t now = report.running ? outside.monotonic : lastChange;
    report.main = Thread(file, kKeldStatusMainThread, now);
    report.alarm = Thread(file, kKeldStatusAlarmThread, now);
    for (std::size_t place = kKeldStatusFirstAgent; place < kKeldStatusThreads; ++place)
        if (Standing(file.threads[place]) != KeldStanding::Unused)
            report.agents.push_back(Thread(file, place, now));
    report.observations = file.observations;
    report.sockets = outside.sockets;
    for (std::size_t i = 0; i < kKeldStatusChannels; ++i)
        report.channels.push_back({i < KELLIB_ASYNC_CONTEXTS ? fmt::format("async-{}", i) : "user",
                                   file.channels[i].observations, file.channels[i].bytes,
                                   file.channels[i].dropped,
                                   outside.sockets ? outside.sockets->waitingBytes[i] : 0});
    std::uint64_t deliveries[kKeldStatusDeliveries]{};
    for (const KeldStatusThread &thread : file.threads)
        for (std::size_t i = 0; i < kKeldStatusDeliveries; ++i)
            deliveries[i] += thread.deliveries[i];
    AddCounts<JournalDelivery>(report.deliveries, deliveries);
    report.eventsWaiting = file.eventsWaiting;
    report.limitMax = file.limitMax;
    if (outside.wall / kSecond - file.limitSince < kMinute) { // unsigned: as the daemon
        report.limitUsed = std::min(file.limitUsed, file.limitMax);
        report.limited = file.limitUsed - report.limitUsed;
    }
    report.traceClients = file.traceClients;
    report.lostLogLines = file.lostLogLines;
}

// ---- Findings -------------------------------------------------------------------------------------

class Judge {
public:
    Judge(StatusReport &report, const StatusFile &file, const StatusOutside &outside)
        : mReport(report), mFile(file.content), mOutside(outside)
    {
    }

    void Find(Health health, std::string what, std::string remedy = "")
    {
        mReport.findings.push_back({health, std::move(what), std::move(remedy)});
    }

    void NotRunning()
    {
        const auto phase = static_cast<KeldPhase>(mFile.phase & 0xFF);
        std::string how = fmt::format("process {} ", mFile.process);
        if (phase == KeldPhase::Ended)
            how += fmt::format("has ended with status {}", mFile.phase >> 8 & 0xFF);
        else if (!IsSameBoot(mFile, mOutside))
            how += "ended when the host did";
        else
            how += "was killed, or has crashed";
        std::uint64_t left = 0;
        for (const StatusThread &agent : mReport.agents)
            left += agent.waiting;
        if (left != 0) how += fmt::format("; {} in its pipes were lost", Plural(left, "observation"));
        if (mReport.eventsWaiting != 0)
            how += fmt::format("; {} that waited for another try were lost",
                               Plural(mReport.eventsWaiting, "event"));
        Find(Health::NotRunning, how, "start keld; the system log has what it said last");
    }

    void Running(const std::string &ownVersion)
    {
        if (mOutside.process->state == 'T' || mOutside.process->state == 't') {
            Find(Health::Stuck,
                 fmt::format("process {} is stopped by a signal or a debugger", mFile.process),
                 fmt::format("kill -CONT {} lets it go on", mFile.process));
        } else {
            MainThread();
            for (std::size_t place = kKeldStatusAlarmThread; place < kKeldStatusThreads; ++place)
                OtherThread(place);
        }
        Agents();
        Events();
        if (mFile.lostLogLines != 0 && Difference(mOutside.monotonic, mFile.lostLogLineAt) < kLogLossRecent)
            Find(
                Health::Degraded,
                fmt::format(
                    "the system log does not take every line: {} lost since the start, the last one {} ago",
                    mFile.lostLogLines, AgeText(Difference(mOutside.monotonic, mFile.lostLogLineAt))),
                "see to the system log; the daemon goes on without it");
        const bool older = mReport.version != ownVersion || mOutside.process->isReplaced.value_or(false);
        if (older)
            Find(Health::Well,
                 fmt::format("it is version {}, and no longer the one that is installed", mReport.version),
                 "restart keld when it suits");
    }

private:
    void MainThread()
    {
        const StatusThread &main = mReport.main;
        if (Standing(mFile.threads[kKeldStatusMainThread]) == KeldStanding::Idle) return;
        const std::size_t awaited = AwaitedPipe(mFile.threads[kKeldStatusMainThread]);
        std::string what =
            fmt::format("the main thread {} for {}", main.stands, AgeText(main.microseconds));
        if (awaited < kKeldStatusThreads)
            what += fmt::format(": every channel waits with it ({}: {})", mFile.threads[awaited].name,
                                StandsText(mFile, awaited));
        const std::size_t cause = awaited < kKeldStatusThreads ? awaited : kKeldStatusMainThread;
        if (main.microseconds >= kStuck)
            Find(Health::Stuck, what, Remedy(cause));
        else if (main.microseconds >= kSlow)
            Find(Health::Degraded, what, Remedy(cause));
    }

    void OtherThread(std::size_t place)
    {
        const KeldStatusThread &thread = mFile.threads[place];
        switch (Standing(thread)) {
        case KeldStanding::Unused:
        case KeldStanding::Idle:
        case KeldStanding::Retries: // takes its time
        case KeldStanding::Ended:
            return;
        default:
            break;
        }
        const std::uint64_t age = Difference(mOutside.monotonic, StandsSince(thread));
        if (age < kSlow) return;
        Find(age < kStuck ? Health::Degraded : Health::Stuck,
             fmt::format("{}: {} for {}", thread.name, StandsText(mFile, place), AgeText(age)),
             Remedy(place));
    }

    std::string Remedy(std::size_t place) const
    {
        const std::uint64_t process = mFile.process;
        switch (Standing(mFile.threads[place])) {
        case KeldStanding::Receiver:
            return "see to the management agent, which does not take events from carad-pling.sock";
        case KeldStanding::Log:
            return "see to the system log";
        case KeldStanding::Stops:
            return fmt::format("give it a moment; kill -KILL {} when it does not end", process);
        default:
            return fmt::format("if it lasts, keep what it stands in (gcore {}) and restart keld", process);
        }
    }

    void Agents()
    {
        const auto phase = static_cast<KeldPhase>(mFile.phase & 0xFF);
        if (phase == KeldPhase::Begins)
            Find(Health::Degraded, "it is just beginning", "look again in a moment");
        if (phase == KeldPhase::Leaves) Find(Health::Degraded, "it is about to end", "");
        std::uint64_t alive = 0;
        for (const StatusThread &agent : mReport.agents) {
            if (agent.alive)
                ++alive;
            else
                Find(Health::Degraded,
                     fmt::format("agent {} has ended: nobody looks at its observations", agent.name),
                     "restart keld; the system log says why it ended");
        }
        const std::uint64_t missing = Difference(mFile.agentsStarted, mReport.agents.size());
        if (phase == KeldPhase::Serves && missing != 0)
            Find(Health::Degraded, fmt::format("{} could not be started", Plural(missing, "agent")),
                 "restart keld; the system log says why");
    }

    void Events()
    {
        if (mReport.eventsWaiting != 0)
            Find(Health::Degraded,
                 fmt::format("{} {} for the management agent to take events again",
                             Plural(mReport.eventsWaiting, "event"),
                             mReport.eventsWaiting == 1 ? "waits" : "wait"),
                 "each is tried every 3 minutes, 5 times, and then given up");
        if (mOutside.sockets && !mOutside.sockets->receiver)
            Find(Health::Degraded, "nobody listens for events at carad-pling.sock",
                 "start the management agent; until then events wait");
        if (mReport.limited != 0)
            Find(Health::Degraded,
                 fmt::format("{} in this minute {} too many, and {} dropped",
                             Plural(mReport.limited, "event"), mReport.limited == 1 ? "was" : "were",
                             mReport.limited == 1 ? "is" : "are"),
                 "the log names each of them; see what floods the host");
    }

    StatusReport &mReport;
    const KeldStatusFile &mFile;
    const StatusOutside &mOutside;
};

bool Lives(const KeldStatusFile &file, const StatusOutside &outside)
{
    return outside.process && outside.process->start == file.processStart && IsSameBoot(file, outside) &&
           outside.process->state != 'Z' && outside.process->state != 'X';
}

} // namespace

StatusReport JudgeStatus(const StatusFile &file, const StatusOutside &outside,
                         const std::string &ownVersion)
{
    StatusReport report;
    Judge judge(report, file, outside);
    const bool good = file.kind == StatusFile::Kind::Good;
    report.running = good && Lives(file.content, outside);
    if (good) TakeCounts(report, file.content, outside);
    if (report.running) {
        judge.Running(ownVersion);
    } else if (outside.serving) {
        report.running = true;
        report.counted = false;
        report.process = static_cast<std::uint64_t>(*outside.serving);
        judge.Find(Health::Degraded,
                   fmt::format("process {} serves, but how it is cannot be told from keld-status: {}",
                               *outside.serving, good ? "it is an earlier daemon's" : file.problem),
                   file.kind == StatusFile::Kind::OtherVersion
                       ? "use the keladm of the daemon's own version, or restart keld"
                       : "look at the system log; a restart of keld makes the file anew");
    } else if (good) {
        judge.NotRunning();
    } else if (file.kind == StatusFile::Kind::Absent) {
        judge.Find(Health::NotRunning, "no daemon has served this run directory",
                   "start keld, or name its run directory in KALTOR_RUN_DIR");
    } else {
        judge.Find(Health::NotRunning, "keld-status was left behind and says nothing: " + file.problem,
                   "start keld");
    }
    if (report.findings.empty()) judge.Find(Health::Well, "nothing stands still");
    std::stable_sort(report.findings.begin(), report.findings.end(),
                     [](const auto &a, const auto &b) { return a.health > b.health; });
    return report;
}

std::string StatusReport::Sentence() const
{
    return fmt::format("{}: {}", HealthName(OverallHealth()), findings.front().Text());
}

const char *HealthName(Health health)
{
    static constexpr const char *kNames[] = {"well", "degraded", "stuck", "not running"};
    return kNames[static_cast<std::size_t>(health)];
}

std::string AgeText(std::uint64_t microseconds)
{
    const std::uint64_t seconds = microseconds / kSecond;
    if (seconds < 60) return fmt::format("{}.{} s", seconds, microseconds % kSecond / 100'000);
    if (seconds < 3600) return fmt::format("{} min {} s", seconds / 60, seconds % 60);
    if (seconds < 86400) return fmt::format("{} h {} min", seconds / 3600, seconds / 60 % 60);
    return fmt::format("{} d {} h", seconds / 86400, seconds / 3600 % 24);
}
