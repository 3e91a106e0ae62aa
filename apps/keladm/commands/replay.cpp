#include "commands.h"
#include "console.h"
#include "hostKeeper.h"
#include "jsonLine.h"
#include "runDirectory.h"
#include "scenarioPlayer.h"
#include "storyPlayer.h"
#include "text.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <iostream>
#include <unistd.h>

using json = nlohmann::ordered_json;

namespace {

struct ReplayOptions {
    std::string file;
    PlayerOptions player;
    bool live = false;
    std::string daemon;
    std::string story; // all when empty
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

// A host, a receiver and a daemon for this scenario alone.
int PlayPrivately(const ReplayOptions &options, std::span<const ScenarioStep> steps)
{
    std::string program = FindDaemon(options.daemon);
    StopSignal stop;
    PrivateRunDirectory directory;

    // The host as the daemon finds it when it starts.
    while (!steps.empty() && std::holds_alternative<HostChange>(steps.front().action)) {
        ApplyHostChange(std::get<HostChange>(steps.front().action));
        steps = steps.subspan(1);
    }

    OwnHost host{EventListener(), {program, directory.Path() + "/daemon.err"}};
    host.daemon.WaitReady(stop);
    ScenarioPlayer player(options.player, stop, &host);
    player.Play(steps);
    return player.Finish(host.daemon.Stop()) ? kExitOk : kExitFailed;
}

bool Agreed()
{
    fmt::print(stderr, "Go on? [y/N] ");
    std::string answer;
    return std::getline(std::cin, answer) && (answer == "y" || answer == "yes");
}

// Everybody who looks at this host will see what is made up here: that is said first.
int PlayLive(const ReplayOptions &options, std::span<const ScenarioStep> steps)
{
    auto counted = [](size_t count, const char *what) {
        return fmt::format("{} {}{}", count, what, count == 1 ? "" : "s");
    };
    Tell("replay",
         fmt::format("plays to the live host in {}, daemon process {}: {}; {} of its inventory, which is "
                     "put back afterwards",
                     RunDirectoryPath(""), TraceConnection().Daemon(),
                     counted(CountOf<Observation>(steps), "observation"),
                     counted(CountOf<HostChange>(steps), "change")));
    if (isatty(STDIN_FILENO) == 1 && isatty(STDERR_FILENO) == 1 && !Agreed())
        throw Failure(kExitFailed, "nothing was played");
    StopSignal stop;
    ScenarioPlayer player(options.player, stop, nullptr);
    player.Connect(steps);
    {
        HostKeeper keeper(steps);
        player.Play(steps);
    }
    return player.Finish(std::nullopt) ? kExitOk : kExitFailed;
}

// By a line of it, or by words of its heading.
bool IsChosen(const Story &story, const std::string &chosen)
{
    size_t line = 0;
    auto [end, error] = std::from_chars(chosen.data(), chosen.data() + chosen.size(), line);
    if (error == std::errc() && end == chosen.data() + chosen.size())
        return story.line <= line && line <= story.lastLine;
    return GlobMatches("*" + chosen + "*", story.heading);
}

std::string Readable(const Story &story, const StoryResult &result, bool colour)
{
    std::string name =
        fmt::format("line {}{}{}", story.line, story.heading.empty() ? "" : ": ", Printable(story.heading));
    if (!result.trouble) return "ok      " + name;
    const StoryTrouble &trouble = *result.trouble;
    std::string text = fmt::format("{}  {}\n    line {}: {}", colour ? "\x1b[31mFAILED\x1b[0m" : "FAILED",
                                   name, trouble.line, Printable(trouble.source));
    auto add = [&](const char *label, const std::string &what) {
        text += fmt::format("\n      {:<10}{}", label, PrintableLines(what));
    };
    if (!trouble.what.empty()) add("", trouble.what);
    for (const std::string &expected : trouble.expected)
        add("expected", expected);
    for (const std::string &came : trouble.came)
        add("came", came);
    if (trouble.what.empty() && trouble.came.empty()) add("came", "nothing");
    if (trouble.what.empty() && trouble.expected.empty()) add("expected", "nothing");
    return text;
}

json ToJson(const Story &story, const StoryResult &result)
{
    json line{{"line", story.line},
              {"story", story.heading},
              {"result", result.trouble ? "failed" : "ok"},
              {"expectations", result.met}};
    if (const auto &trouble = result.trouble)
        line["trouble"] = {{"line", trouble->line},
                           {"action", trouble->source},
                           {"reason", trouble->what},
                           {"expected", trouble->expected},
                           {"came", trouble->came}};
    return line;
}

int PlayStories(const ReplayOptions &options, std::span<const ScenarioStep> steps)
{
    if (!options.player.check)
        throw Failure(kExitUsage, "a story is played with --check alone, to a daemon whose clock it moves");
    auto stories = StoriesOf(steps);
    std::erase_if(stories, [&](const Story &story) {
        return !options.story.empty() && !IsChosen(story, options.story);
    });
    if (stories.empty()) throw Failure(kExitUsage, fmt::format("no story is {}", Quoted(options.story)));

    std::string program = FindLab(options.daemon);
    StopSignal stop;
    Output out(STDOUT_FILENO, stop.Get());
    size_t good = 0;
    for (const Story &story : stories) {
        StoryResult result = PlayStory(story, program, stop);
        if (!result.trouble) good++;
        out.ColouredLine(options.player.asJson ? JsonLine(ToJson(story, result))
                                               : Readable(story, result, out.Colour()));
        out.Flush();
    }
    bool allGood = good == stories.size();
    if (options.player.asJson)
        out.Line(JsonLine({{"result", allGood ? "ok" : "failed"},
                           {"stories", stories.size()},
                           {"failed", stories.size() - good}}));
    else
        out.Line(fmt::format("{}: {} of {} stories", allGood ? "ok" : "FAILED", good, stories.size()));
    out.Flush();
    return allGood ? kExitOk : kExitFailed;
}

int Replay(const ReplayOptions &options)
{
    auto steps = ReadScenario(options.file);
    try {
        if (options.player.check && !ExpectsAnything(steps))
            throw Failure(kExitUsage,
                          fmt::format("{}: nothing to check: no line expects anything", options.file));
        if (NeedsHandClock(steps)) return PlayStories(options, steps);
        if (!options.story.empty()) throw Failure(kExitUsage, "--story is for a file of stories");
        return options.live ? PlayLive(options, steps) : PlayPrivately(options, steps);
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
    replay->add_option("--speed", options->player.speed, "Divide the pauses by this")
        ->type_name("X")
        ->capture_default_str()
        ->check([](const std::string &text) -> std::string {
            double speed = 0;
            const char *end = text.data() + text.size();
            auto [stop, status] = std::from_chars(text.data(), end, speed);
            if (status == std::errc() && stop == end && speed > 0 && std::isfinite(speed)) return "";
            return fmt::format("{} is not a number above 0, such as 2 or 0.5", Quoted(text));
        });
    auto check =
        replay->add_flag("--check", options->player.check, "Compare the events with those expected");
    replay->add_flag("--live", options->live, "Play to the daemon that serves the run directory")
        ->excludes(check);
    replay->add_option("--daemon", options->daemon, "The daemon that --check starts")
        ->needs(check)
        ->type_name("FILE");
    replay
        ->add_option("--story", options->story,
                     "Only the stories whose heading holds TEXT, or the one with that line")
        ->type_name("TEXT|LINE");
    replay->add_flag("--json", options->player.asJson, "One JSON object a line");
    replay->footer(R"(
One action a line:
  # a comment
  host set net/portgroups/Production vSwitch0      also: host mkdir NAME, host remove NAME
  observe kel.net.vmnic.linkstate.down vmnic0      the format is guessed, as by send --force
  observe @async-3 kel.x "NIC %s at %u" vmnic0 10  a context; in double quotes: the format
  pause 500ms                                      also: 2s, 1.5s, 1m
  repeat 3                                         what stands before its end, three times
  end
  expect within 5s nox.problem.net.vmnic.linkstate.down vmnic0
  expect none within 2s nox.problem.*              without a pattern: no event at all

With one of these lines the file is a story, played with --check on a clock that it moves:
  story A NIC that flaps is taken down.            a new host and daemon, up to the next story
  clock +2s                                        also: clock set 2026-03-01T11:00:00Z
  log Abandoned event (*) after ? failures.        a line of the daemon's log that contains it
  log none                                         none but the traces of observations and events
  receiver away                                    also: back, deaf
  restart                                          the daemon ends and starts again
There, expect TYPE [ARG...] and expect none need no time, nothing pauses, and an event that
is not expected before the next step fails. The clock begins at 2026-03-01 12:00:00 UTC.

A word with blanks stands between quotes: "..." with \" \\ \n \t, or '...' as it is.
An expected argument is compared as text; * matches any, a last ... all that follow.

The whole scenario is read before anything is played, also from standard input.
It is played to a daemon of its own, with a host and a receiver of its own; host lines
that come first are in place before the daemon starts, and nothing is left behind. The
events are shown as they come, up to 3 seconds behind the last line, or compared with
--check. The daemon is KELD_DAEMON, or keld beside keladm, in ../keld or ../sbin, or in
PATH; for a story, keld-lab beside keladm or in ../libexec/keld.
With --live, the daemon that serves the run directory is played to, and whoever watches
it sees what is made up. It says where, asks on a terminal, and puts back the inventory's
entries that the scenario changes or the daemon writes, whatever ends it.

Exit status: 0 played, and with --check all expectations met; 1 not met, the daemon ended
badly, or interrupted by a signal; 2 for a line that is wrong, or --check without a line
that expects anything, and nothing was played; 3 no daemon; 4 and 5 as "keladm send".

Examples:
  keladm replay scenarios/uplink-failure.kel
  keladm replay --check scenarios/uplink-failure.kel
  keladm replay --speed 10 -)");
    replay->callback([options, chosen] { *chosen = [options] { return Replay(*options); }; });
}
