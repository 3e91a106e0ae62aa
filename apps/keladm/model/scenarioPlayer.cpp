#include "scenarioPlayer.h"

#include "failure.h"
#include "jsonLine.h"
#include "text.h"

#include <algorithm>
#include <fmt/format.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

// Most of what an agent gathers or holds back comes sooner.
constexpr auto kSecondsForTheRest = std::chrono::duration<double>(3);
constexpr auto kTraceLimit = std::chrono::seconds(10);

json ToJson(const PlainEvent &event)
{
    json arguments = json::array();
    for (const std::string &argument : event.arguments)
        arguments.push_back(JsonText(argument));
    return {{"id", JsonText(event.type)}, {"arguments", std::move(arguments)}};
}

} // namespace

ScenarioPlayer::ScenarioPlayer(const PlayerOptions &options, const StopSignal &stop, OwnHost *host)
    : mOptions(options), mHost(host), mStop(stop), mOut(STDOUT_FILENO, stop.Get()), mSender(stop.Get())
{
    if (host != nullptr) return;
    mTrace.emplace();
    AwaitTrace();
}

// An event that is made before the daemon serves the connection would be taken for history.
void ScenarioPlayer::AwaitTrace()
{
    const auto limit = Clock::now() + kTraceLimit;
    while (!mTrace->IsLive()) {
        pollfd fds[] = {{mStop.Get(), POLLIN, 0}, mTrace->Watch()};
        PollUntil(fds, std::min(limit, mTrace->Again()));
        if (fds[0].revents != 0) throw Stopped{};
        if (Clock::now() >= limit)
            throw Failure(kExitFailed, "the daemon does not serve its trace: \"keladm status\" says why");
        (void)mTrace->Proceed();
        while (mTrace->Next()) {
        }
    }
}

void ScenarioPlayer::Connect(std::span<const ScenarioStep> steps)
{
    for (const ScenarioStep &step : steps) {
        if (auto observation = std::get_if<Observation>(&step.action))
            mSender.Connect(observation->context);
        else if (auto repeat = std::get_if<RepeatAction>(&step.action))
            Connect(repeat->steps);
    }
}

void ScenarioPlayer::Play(std::span<const ScenarioStep> steps)
{
    PlaySteps(steps);
    mSender.Close();
    if (!mOptions.check)
        WaitUntil(Clock::now() +
                  std::chrono::duration_cast<Clock::duration>(kSecondsForTheRest / mOptions.speed));
}

void ScenarioPlayer::PlaySteps(std::span<const ScenarioStep> steps)
{
    for (const ScenarioStep &step : steps) {
        if (auto repeat = std::get_if<RepeatAction>(&step.action)) {
            for (unsigned i = 0; i < repeat->count; i++)
                PlaySteps(repeat->steps);
            continue;
        }
        try {
            std::visit([&](const auto &action) { Do(step, action); }, step.action);
        } catch (const Failure &failure) {
            throw Failure(failure.status, fmt::format("line {}: {}", step.line, failure.what()));
        }
        WaitSome(Clock::now()); // a receiver that does not listen would hold the daemon up
    }
}

bool ScenarioPlayer::Finish(const std::optional<std::string> &trouble)
{
    bool good = mFailed == 0 && !trouble;
    if (mOptions.asJson) {
        json line{{"result", good ? "ok" : "failed"}};
        if (mOptions.check) line.update(json{{"expectations", mMet + mFailed}, {"failed", mFailed}});
        if (trouble) line["daemon"] = *trouble;
        mOut.Line(JsonLine(line));
    } else {
        if (trouble) mOut.ColouredLine(Failed() + "    " + PrintableLines(*trouble));
        if (mOptions.check)
            mOut.ColouredLine(
                fmt::format("{}: {} of {} expectations met", good ? "ok" : Failed(), mMet, mMet + mFailed));
    }
    mOut.Flush();
    return good;
}

void ScenarioPlayer::Do(const ScenarioStep &step, const Observation &observation)
{
    Report(step);
    mSender.Send(observation);
}

void ScenarioPlayer::Do(const ScenarioStep &step, const HostChange &change)
{
    Report(step);
    ApplyHostChange(change);
}

void ScenarioPlayer::Do(const ScenarioStep &step, const PauseAction &pause)
{
    Report(step);
    auto duration = std::chrono::duration<double, std::milli>(pause.duration) / mOptions.speed;
    WaitUntil(Clock::now() + std::chrono::duration_cast<Clock::duration>(duration));
}

// Where nothing is compared, the scenario's times are kept all the same: its next line may rest on what has
// come.
void ScenarioPlayer::Do(const ScenarioStep &step, const ExpectAction &expect)
{
    auto until = Clock::now() + *expect.within;
    if (expect.none)
        ExpectNone(step, expect, until);
    else
        ExpectEvent(step, expect, until);
}

void ScenarioPlayer::ExpectEvent(const ScenarioStep &step, const ExpectAction &expect,
                                 Clock::time_point until)
{
    auto found = FindEvent(expect);
    while (found == mWaiting.end() && Clock::now() < until) {
        WaitSome(until);
        found = FindEvent(expect);
    }
    if (found == mWaiting.end()) {
        Result(step, expect, false, fmt::format("did not come within {}", DurationText(*expect.within)),
               mWaiting);
        return;
    }
    Result(step, expect, true, "", {*found});
    mWaiting.erase(found);
}

void ScenarioPlayer::ExpectNone(const ScenarioStep &step, const ExpectAction &expect,
                                Clock::time_point until)
{
    WaitUntil(until);
    std::vector<PlainEvent> unwanted;
    for (auto found = FindEvent(expect); found != mWaiting.end(); found = FindEvent(expect)) {
        unwanted.push_back(std::move(*found));
        mWaiting.erase(found);
    }
    Result(step, expect, unwanted.empty(), "came all the same", unwanted);
}

std::vector<PlainEvent>::iterator ScenarioPlayer::FindEvent(const ExpectAction &expect)
{
    return std::ranges::find_if(
        mWaiting, [&](const PlainEvent &event) { return Meets(expect, event.type, event.arguments); });
}

void ScenarioPlayer::WaitUntil(Clock::time_point until)
{
    while (Clock::now() < until)
        WaitSome(until);
}

// Waits for events, for the daemon's end or for until, whichever is first.
void ScenarioPlayer::WaitSome(Clock::time_point until)
{
    pollfd fds[] = {{mStop.Get(), POLLIN, 0}, mHost == nullptr ? mTrace->Watch() : mHost->daemon.Watch()};
    if (mHost == nullptr) {
        PollUntil(fds, std::min(until, mTrace->Again()));
    } else {
        for (const ReceivedRecord &record : mHost->listener.Wait(until, fds))
            Take(ToPlainEvent(record));
    }
    if (fds[0].revents != 0) throw Stopped{};
    if (mHost == nullptr) {
        if (fds[1].revents != 0 || Clock::now() >= mTrace->Again()) TakeTrace();
    } else if (fds[1].revents != 0) {
        // A daemon that has gone leaves nothing to play for.
        throw Failure(kExitFailed, mHost->daemon.Stop().value_or("the daemon has ended"));
    }
}

// A live daemon's events go to its own receiver, and are seen in passing.
void ScenarioPlayer::TakeTrace()
{
    if (auto news = mTrace->Proceed()) Tell("replay", *news);
    while (auto item = mTrace->Next()) {
        if (item->isHistory || item->isGap) continue;
        TraceLine line = ParseTraceLine(item->line);
        if (line.in) continue;
        PlainEvent event{line.id, {}};
        for (const TraceArgument &argument : line.arguments)
            event.arguments.push_back(argument.text);
        Take(std::move(event));
    }
}

void ScenarioPlayer::Take(PlainEvent event)
{
    if (!mOptions.check) {
        mOut.Line(mOptions.asJson ? JsonLine({{"after", Elapsed()}, {"event", ToJson(event)}})
                                  : fmt::format("{:8.3f}      {}", Elapsed(), event.ToText()));
        mOut.Flush();
    }
    mWaiting.push_back(std::move(event));
}

void ScenarioPlayer::Report(const ScenarioStep &step)
{
    if (mOptions.asJson)
        mOut.Line(JsonLine({{"line", step.line}, {"after", Elapsed()}, {"action", JsonText(step.source)}}));
    else
        mOut.Line(fmt::format("{:8.3f}  {}", Elapsed(), Printable(step.source)));
    mOut.Flush();
}

// events: the one that met the expectation, or those that came instead of it.
void ScenarioPlayer::Result(const ScenarioStep &step, const ExpectAction &expect, bool met,
                            const std::string &what, const std::vector<PlainEvent> &events)
{
    if (!mOptions.check) return;
    (met ? mMet : mFailed)++;
    if (mOptions.asJson) {
        json list = json::array();
        for (const PlainEvent &event : events)
            list.push_back(ToJson(event));
        json line{{"line", step.line},
                  {"after", Elapsed()},
                  {"action", JsonText(step.source)},
                  {"result", met ? "met" : "failed"}};
        if (!met) line["reason"] = what;
        line["events"] = std::move(list);
        mOut.Line(JsonLine(line));
    } else if (met) {
        mOut.Line(fmt::format("{:8.3f}  {}", Elapsed(), Printable(step.source)));
    } else {
        mOut.ColouredLine(fmt::format("{}    line {}: {}\n            {}{}", Failed(), step.line,
                                      Printable(step.source), what,
                                      expect.none      ? ":"
                                      : events.empty() ? "; no other event came"
                                                       : "; what came and was not expected yet:"));
        for (const PlainEvent &event : events) {
            std::string difference = Difference(expect, event.type, event.arguments).value_or("");
            mOut.Line("              " + event.ToText() +
                      (difference.empty() ? "" : "\n                " + difference));
        }
    }
    mOut.Flush();
}

double ScenarioPlayer::Elapsed() const
{
    auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - mStart);
    return static_cast<double>(elapsed.count()) / 1000;
}
