#include "commands.h"
#include "console.h"
#include "privateHost.h"
#include "receive.h"
#include "runDirectory.h"
#include "scenario.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

struct ReplayOptions {
    std::string file;
    double speed = 1;
    bool check = false;
    bool asJson = false;
    std::string daemon;
};

// What a check has of its own, beside the run directory.
struct CheckedHost {
    EventListener listener;
    DaemonProcess daemon;
};

// An event that has come and met no expectation yet.
struct WaitingEvent {
    std::string type;
    std::vector<std::string> arguments;

    std::string ToText() const
    {
        std::string text = Printable(type);
        for (const std::string &argument : arguments) {
            bool plain = !argument.empty() && argument.find_first_of(" \t\n\"'*?#\\") == std::string::npos;
            text += " " + (plain ? Printable(argument) : Quoted(argument));
        }
        return text;
    }
};

class Player {
public:
    Player(const ReplayOptions &options, const StopSignal &stop, CheckedHost *host)
        : mOptions(options), mHost(host), mStop(stop), mOut(STDOUT_FILENO, stop.Get()), mSender(stop.Get())
    {
    }

    // Finds the daemon before anything is changed.
    void Connect(std::span<const ScenarioStep> steps)
    {
        for (const ScenarioStep &step : steps) {
            if (auto observation = std::get_if<Observation>(&step.action))
                mSender.Connect(observation->context);
            else if (auto repeat = std::get_if<RepeatAction>(&step.action))
                Connect(repeat->steps);
        }
    }

    void Play(std::span<const ScenarioStep> steps)
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

    // Reports how it went; trouble is what the daemon's end brought. True when all was as expected.
    bool Finish(const std::optional<std::string> &trouble)
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

private:
    void Do(const ScenarioStep &step, const Observation &observation)
    {
        Report(step);
        mSender.Send(observation);
    }

    void Do(const ScenarioStep &step, const HostChange &change)
    {
        Report(step);
        ApplyHostChange(change);
    }

    void Do(const ScenarioStep &step, const PauseAction &pause)
    {
        Report(step);
        auto duration = std::chrono::duration<double, std::milli>(pause.duration) / mOptions.speed;
        WaitUntil(Clock::now() + std::chrono::duration_cast<Clock::duration>(duration));
    }

    void Do(const ScenarioStep &, const RepeatAction &) {} // Play's own

    // Without a receiver of one's own there is nothing to compare; the time passes all the same where
    // the scenario's meaning is that it does.
    void Do(const ScenarioStep &step, const ExpectAction &expect)
    {
        auto until = Clock::now() + expect.within;
        if (mHost == nullptr) {
            if (expect.none) WaitUntil(until);
        } else if (expect.none) {
            ExpectNone(step, expect, until);
        } else {
            ExpectEvent(step, expect, until);
        }
    }

    void ExpectEvent(const ScenarioStep &step, const ExpectAction &expect, Clock::time_point until)
    {
        auto found = FindEvent(expect);
        while (found == mWaiting.end() && Clock::now() < until) {
            WaitSome(until);
            found = FindEvent(expect);
        }
        if (found == mWaiting.end()) {
            Result(step, expect, false, fmt::format("did not come within {}", DurationText(expect.within)),
                   mWaiting);
            return;
        }
        Result(step, expect, true, "", {*found});
        mWaiting.erase(found);
    }

    void ExpectNone(const ScenarioStep &step, const ExpectAction &expect, Clock::time_point until)
    {
        WaitUntil(until);
        std::vector<WaitingEvent> unwanted;
        for (auto found = FindEvent(expect); found != mWaiting.end(); found = FindEvent(expect)) {
            unwanted.push_back(std::move(*found));
            mWaiting.erase(found);
        }
        Result(step, expect, unwanted.empty(), "came all the same", unwanted);
    }

    std::vector<WaitingEvent>::iterator FindEvent(const ExpectAction &expect)
    {
        return std::ranges::find_if(mWaiting, [&](const WaitingEvent &event) {
            return Meets(expect, event.type, event.arguments);
        });
    }

    void WaitUntil(Clock::time_point until)
    {
        while (Clock::now() < until)
            WaitSome(until);
    }

    // Waits for events, for the daemon's end or for until, whichever is first.
    void WaitSome(Clock::time_point until)
    {
        pollfd fds[] = {{mStop.Get(), POLLIN, 0}, {-1, 0, 0}};
        if (mHost == nullptr) {
            PollUntil(fds, until);
        } else {
            fds[1] = mHost->daemon.Watch();
            for (ReceivedRecord &record : mHost->listener.Wait(until, fds))
                Keep(record);
        }
        if (fds[0].revents != 0) throw Stopped{};
        // A daemon that has gone leaves nothing to play for.
        if (fds[1].revents != 0)
            throw Failure(kExitFailed, mHost->daemon.Stop().value_or("the daemon has ended"));
    }

    void Keep(const ReceivedRecord &record)
    {
        if (!record.event) {
            mWaiting.push_back({fmt::format("malformed record ({})", record.malformed), {}});
            return;
        }
        WaitingEvent event{record.event->typeId, {}};
        for (const EventArgument &argument : record.event->arguments)
            event.arguments.push_back(argument.ToText());
        mWaiting.push_back(std::move(event));
    }

    void Report(const ScenarioStep &step)
    {
        if (mOptions.asJson)
            mOut.Line(JsonLine({{"line", step.line}, {"after", Elapsed()}, {"action", step.source}}));
        else
            mOut.Line(fmt::format("{:8.3f}  {}", Elapsed(), step.source));
        mOut.Flush();
    }

    // events: the one that met the expectation, or those that came instead of it.
    void Result(const ScenarioStep &step, const ExpectAction &expect, bool met, const std::string &what,
                const std::vector<WaitingEvent> &events)
    {
        (met ? mMet : mFailed)++;
        if (mOptions.asJson) {
            json list = json::array();
            for (const WaitingEvent &event : events)
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
            mOut.Line(fmt::format("{}    line {}: {}\n            {}{}", Failed(), step.line, step.source,
                                  what,
                                  expect.none      ? ":"
                                  : events.empty() ? "; no other event came"
                                                   : "; what came and was not expected yet:"));
            for (const WaitingEvent &event : events) {
                std::string difference = Difference(expect, event.type, event.arguments).value_or("");
                mOut.Line("              " + event.ToText() +
                          (difference.empty() ? "" : "\n                " + difference));
            }
        }
        mOut.Flush();
    }

    std::string Failed() const { return mOut.Colour() ? "\x1b[31mFAILED\x1b[0m" : "FAILED"; }

    double Elapsed() const
    {
        auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - mStart);
        return static_cast<double>(elapsed.count()) / 1000;
    }

    const ReplayOptions &mOptions;
    CheckedHost *mHost; // null: a host that is there already
    const StopSignal &mStop;
    Output mOut;
    Sender mSender;
    Clock::time_point mStart = Clock::now();
    std::vector<WaitingEvent> mWaiting;
    unsigned mMet = 0;
    unsigned mFailed = 0;
};

std::vector<ScenarioStep> ReadScenario(const std::string &file)
{
    std::string text = ReadFile(file == "-" ? "/dev/stdin" : file);
    try {
        return ParseScenario(text);
    } catch (const Failure &failure) {
        throw Failure(failure.status,
                      fmt::format("{}: {}", file == "-" ? "standard input" : file, failure.what()));
    }
}

int PlayChecked(const ReplayOptions &options, std::span<const ScenarioStep> steps)
{
    std::string program = FindDaemon(options.daemon);
    StopSignal stop;
    PrivateRunDirectory directory;

    // The host as the daemon finds it when it starts.
    while (!steps.empty() && std::holds_alternative<HostChange>(steps.front().action)) {
        ApplyHostChange(std::get<HostChange>(steps.front().action));
        steps = steps.subspan(1);
    }

    CheckedHost host{EventListener(), {program, directory.Path() + "/daemon.err"}};
    host.daemon.WaitReady(stop);
    Player player(options, stop, &host);
    player.Play(steps);
    return player.Finish(host.daemon.Stop()) ? kExitOk : kExitFailed;
}

int Replay(const ReplayOptions &options)
{
    auto steps = ReadScenario(options.file);
    try {
        if (options.check) return PlayChecked(options, steps);
        StopSignal stop;
        Player player(options, stop, nullptr);
        player.Connect(steps);
        player.Play(steps);
        return player.Finish(std::nullopt) ? kExitOk : kExitFailed;
    } catch (const Stopped &) {
        throw Failure(kExitFailed, "interrupted");
    }
}

} // namespace

void AddReplayCommand(CLI::App &app, Command *chosen)
{
    auto options = std::make_shared<ReplayOptions>();

    CLI::App *replay = app.add_subcommand("replay", "Play a scenario of observations and host changes");
    replay->add_option("FILE", options->file, "The scenario; - for standard input")->required();
    replay->add_option("--speed", options->speed, "Divide the pauses by this")
        ->type_name("X")
        ->capture_default_str()
        ->check([](const std::string &text) -> std::string {
            double speed = 0;
            const char *end = text.data() + text.size();
            auto [stop, status] = std::from_chars(text.data(), end, speed);
            if (status == std::errc() && stop == end && speed > 0 && std::isfinite(speed)) return "";
            return fmt::format("{} is not a number above 0, such as 2 or 0.5", Quoted(text));
        });
    replay->add_flag("--check", options->check,
                     "With a daemon of its own, compare the events with those expected");
    replay->add_option("--daemon", options->daemon, "The daemon that --check starts")->type_name("FILE");
    replay->add_flag("--json", options->asJson, "One JSON object a line");
    replay->footer(R"(
One action a line:
  # a comment
  host set net/portgroups/Production vSwitch0      also: host mkdir NAME, host remove NAME
  observe kel.net.vmnic.linkstate.down vmnic0      the format is guessed, as by keladm send
  observe @async-3 kel.x "NIC %s at %u" vmnic0 10  a context; in double quotes: the format
  pause 500ms                                      also: 2s, 1.5s, 1m
  repeat 3                                         what stands before its end, three times
  end
  expect within 5s nox.problem.net.vmnic.linkstate.down vmnic0
  expect none within 2s nox.problem.*              without a pattern: no event at all

A word with blanks stands between quotes: "..." with \" \\ \n \t, or '...' as it is.
An expected argument is compared as text; * matches any, a last ... all that follow.

The whole scenario is read before anything is played, also from standard input.
Without --check, the daemon that serves the run directory is played to and expectations
are not compared. With it, host lines that come first are in place before the daemon
starts, and nothing is left behind; the daemon is KELD_DAEMON, or keld beside keladm, in
../keld or ../sbin, or in PATH.

Exit status: 0 played, and all expectations met; 1 not met, the daemon ended badly, or
interrupted by a signal; 2 for a line that is wrong, and nothing was played; 3 no daemon.

Examples:
  keladm replay scenarios/uplink-failure.kel
  keladm replay --check scenarios/uplink-failure.kel
  keladm replay --speed 10 -)");
    replay->callback([options, chosen] { *chosen = [options] { return Replay(*options); }; });
}
