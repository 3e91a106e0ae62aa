// Scenarios: what happens on a host, and what the daemon should make of it. One action a line:
//
//     # a comment
//     host set net/portgroups/Production vSwitch0      also: host mkdir NAME, host remove NAME
//     observe kel.net.vmnic.linkstate.down vmnic0      the format is guessed, as by keladm send
//     observe @async-3 kel.x "NIC %s at %u" vmnic0 10  a context; in double quotes: the format
//     pause 500ms                                      also: 2s, 1.5s, 1m
//     repeat 3                                         what stands before its end, three times
//         ...
//     end
//     expect within 5s nox.problem.net.vmnic.linkstate.down vmnic0
//     expect none within 2s nox.problem.*              without a pattern: no event at all
//
// A file with one of these is played on a clock moved by hand; it does not pause, and its expectations
// need no time:
//
//     story A NIC that flaps is taken down.            a new host and a new daemon, up to the next story
//     clock +2s                                        time passes, in whole seconds
//     clock set 2026-03-01T11:00:00Z                   the wall clock is set, also back
//     log Abandoned event (*) after ? failures.        a line of the daemon's log that contains it
//     log none                                         no line but those that trace observations and events
//     fate held back: within 90 s of *                 what becomes of an observation, as the journal says
//     fate then posted                                 what becomes, or became, of one that was gathered
//     receiver away                                    also: back, deaf (listens and takes nothing)
//     restart                                          the daemon ends and starts again
//
// Words are separated by blanks; one with blanks in it stands between double quotes (with \" \\ \n \t)
// or single quotes (as it is). What is quoted is a text, never a number or a pattern; a first argument
// that must be quoted where there is no format stands between single quotes.
//
// Of an expected event, the type ID may hold * and ?, and so may each argument, which are compared as
// text: all of them in their order, or as many as stand there before a last "..."; without any,
// arguments do not matter. An event meets one expectation; events that were never expected are no
// failure, unless "expect none" meets them, but in a story they are.
#ifndef KELADM_SCENARIO_H
#define KELADM_SCENARIO_H

#include "hostEntries.h"
#include "observationWords.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

struct ScenarioStep;

struct PauseAction {
    std::chrono::milliseconds duration;
};

struct ExpectAction {
    bool none = false;
    std::optional<std::chrono::milliseconds>
        within;                          // always there outside stories, and not looked at in them
    std::string type;                    // pattern
    std::vector<ArgumentWord> arguments; // patterns where not quoted
    bool argumentsMatter = false;
    bool moreAllowed = false; // "..." stands behind the arguments
};

struct RepeatAction {
    unsigned count = 1;
    std::vector<ScenarioStep> steps;
};

struct StoryAction {
    std::string heading;
};

struct ClockAction {
    std::uint64_t forward = 0;          // by so many seconds
    std::optional<std::uint64_t> setTo; // or, with a step, to this one since the epoch
};

struct LogAction {
    bool none = false;
    ArgumentWord text; // a pattern where not quoted
};

struct FateAction {
    ArgumentWord text; // a pattern where not quoted
};

enum class ReceiverAction { Away, Back, Deaf };

struct RestartAction {};

using ScenarioAction =
    std::variant<Observation, HostChange, PauseAction, ExpectAction, RepeatAction, StoryAction, ClockAction,
                 LogAction, FateAction, ReceiverAction, RestartAction>;

struct ScenarioStep {
    size_t line = 0;
    std::string source; // the line without what surrounds it
    ScenarioAction action;
};

// Throws Failure, "line 12: ...", for the first line that is wrong.
std::vector<ScenarioStep> ParseScenario(std::string_view text);

// True for a scenario that plays on a clock moved by hand.
bool NeedsHandClock(std::span<const ScenarioStep> steps);

// Whether any line expects an event, or a line of the log.
bool ExpectsAnything(std::span<const ScenarioStep> steps);

// How often a kind of action is played.
template <typename Action> std::size_t CountOf(std::span<const ScenarioStep> steps)
{
    std::size_t count = 0;
    for (const ScenarioStep &step : steps) {
        auto repeat = std::get_if<RepeatAction>(&step.action);
        count += repeat != nullptr ? repeat->count * CountOf<Action>(repeat->steps)
                                   : std::holds_alternative<Action>(step.action);
    }
    return count;
}

// What keeps the event from being the one that is meant: nothing when it is; "" when its type is another;
// else the arguments, such as "argument 2 is \"vmnic0\", not vmnic1".
std::optional<std::string> Difference(const ExpectAction &expected, const std::string &type,
                                      const std::vector<std::string> &arguments);

inline bool Meets(const ExpectAction &expected, const std::string &type,
                  const std::vector<std::string> &arguments)
{
    return !Difference(expected, type, arguments);
}

#endif
