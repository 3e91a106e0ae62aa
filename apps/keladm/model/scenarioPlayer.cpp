#include "scenarioPlayer.h"

#include "failure.h"
#include "jsonLine.h"
#include "text.h"

#include <algorithm>
#include <fmt/format.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

ScenarioPlayer::ScenarioPlayer(const PlayerOptions &options, const StopSignal &stop, CheckedHost *host)
    : mOptions(options), mHost(host), mStop(stop), mOut(STDOUT_FILENO, stop.Get()), mSender(stop.Get())
{
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
    for (const ScenarioStep &step : steps) {
        if (auto repeat = std::get_if<RepeatAction>(&step.action)) {
            for (unsigned i = 0; i < repeat->count; i++)
                Play(repeat->steps);
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
        json line{
            {"result", good ? "ok" : "failed"}, {"expectations", mMet + mFailed}, {"failed", mFailed}};
        if (trouble) line["daemon"] = *trouble;
        mOut.Line(JsonLine(line));
    } else if (mHost != nullptr) {
        if (trouble) mOut.Line(Failed() + "    " + *trouble);
        mOut.Line(
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

// Without a receiver of one's own there is nothing to compare; the time passes all the same where
// the scenario's meaning is that it does.
void ScenarioPlayer::Do(const ScenarioStep &step, const ExpectAction &expect)
{
    auto until = Clock::now() + *expect.within;
    if (mHost == nullptr) {
        if (expect.none) WaitUntil(until);
    } else if (expect.none) {
        ExpectNone(step, expect, until);
    } else {
        ExpectEvent(step, expect, until);
    }
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
    pollfd fds[] = {{mStop.Get(), POLLIN, 0}, {-1, 0, 0}};
    if (mHost == nullptr) {
        PollUntil(fds, until);
    } else {
        fds[1] = mHost->daemon.Watch();
        for (const ReceivedRecord &record : mHost->listener.Wait(until, fds))
            mWaiting.push_back(ToPlainEvent(record));
    }
    if (fds[0].revents != 0) throw Stopped{};
    // A daemon that has gone leaves nothing to play for.
    if (fds[1].revents != 0)
        throw Failure(kExitFailed, mHost->daemon.Stop().value_or("the daemon has ended"));
}

void ScenarioPlayer::Report(const ScenarioStep &step)
{
    if (mOptions.asJson)
        mOut.Line(JsonLine({{"line", step.line}, {"after", Elapsed()}, {"action", step.source}}));
    else
        mOut.Line(fmt::format("{:8.3f}  {}", Elapsed(), step.source));
    mOut.Flush();
}

// events: the one that met the expectation, or those that came instead of it.
void ScenarioPlayer::Result(const ScenarioStep &step, const ExpectAction &expect, bool met,
                            const std::string &what, const std::vector<PlainEvent> &events)
{
    (met ? mMet : mFailed)++;
    if (mOptions.asJson) {
        json list = json::array();
        for (const PlainEvent &event : events)
            list.push_back({{"type", event.type}, {"arguments", event.arguments}});
        json line{{"line", step.line},
                  {"after", Elapsed()},
                  {"action", step.source},
                  {"result", met ? "met" : "failed"}};
        if (!met) line["reason"] = what;
        line["events"] = std::move(list);
        mOut.Line(JsonLine(line));
    } else if (met) {
        mOut.Line(fmt::format("{:8.3f}  {}", Elapsed(), step.source));
    } else {
        mOut.Line(fmt::format("{}    line {}: {}\n            {}{}", Failed(), step.line, step.source, what,
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
