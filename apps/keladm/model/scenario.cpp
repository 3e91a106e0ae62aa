#include "scenario.h"

#include "scenarioActions.h"
#include "text.h"

#include <algorithm>
#include <fmt/format.h>

namespace {

constexpr size_t kNestingMax = 8;

// The lines so far. Blocks that are open stand on a stack; the outermost is the scenario.
class Builder {
public:
    void Line(size_t number, std::string_view text)
    {
        if (auto heading = StoryHeading(Trimmed(text))) {
            if (!mOpen.empty()) throw Wrong("a story inside a repeat");
            mSteps.push_back({number, Trimmed(text), StoryAction{*heading}});
            return;
        }
        auto words = SplitWords(text);
        if (words.empty()) return;
        if (IsPlain(words, 0, "end")) return CloseBlock(words);

        ScenarioStep step{number, Trimmed(text), ReadAction(words)};
        if (!std::holds_alternative<RepeatAction>(step.action)) {
            Steps().push_back(std::move(step));
            return;
        }
        if (mOpen.size() == kNestingMax)
            throw Wrong(fmt::format("more than {} repeats inside each other", kNestingMax));
        mOpen.push_back(std::move(step));
    }

    std::vector<ScenarioStep> Finish()
    {
        if (!mOpen.empty())
            throw Failure(kExitUsage, fmt::format("line {}: this repeat has no end", mOpen.back().line));
        return std::move(mSteps);
    }

private:
    static std::string Trimmed(std::string_view text)
    {
        size_t first = text.find_first_not_of(" \t");
        if (first == std::string_view::npos) return "";
        return std::string(text.substr(first, text.find_last_not_of(" \t") + 1 - first));
    }

    // A sentence is no list of words: quotes and # mean nothing in it.
    static std::optional<std::string> StoryHeading(const std::string &line)
    {
        if (line == "story") throw Wrong("use: story and a sentence that says what it shows");
        if (!line.starts_with("story ") && !line.starts_with("story\t")) return std::nullopt;
        return Trimmed(std::string_view(line).substr(6));
    }

    std::vector<ScenarioStep> &Steps()
    {
        return mOpen.empty() ? mSteps : std::get<RepeatAction>(mOpen.back().action).steps;
    }

    void CloseBlock(Words words)
    {
        if (words.size() > 1) throw Wrong("nothing may stand behind end");
        if (mOpen.empty()) throw Wrong("an end without its repeat");
        ScenarioStep block = std::move(mOpen.back());
        mOpen.pop_back();
        Steps().push_back(std::move(block));
    }

    std::vector<ScenarioStep> mSteps;
    std::vector<ScenarioStep> mOpen;
};

// In a story no time passes by itself: nothing can pause. Elsewhere, an expectation must say how long it
// waits.
void CheckTimes(std::span<const ScenarioStep> steps, bool handClock)
{
    for (const ScenarioStep &step : steps) {
        auto fail = [&](const std::string &what) {
            throw Wrong(fmt::format("line {}: {}", step.line, what));
        };
        if (auto repeat = std::get_if<RepeatAction>(&step.action)) CheckTimes(repeat->steps, handClock);
        if (handClock && std::holds_alternative<PauseAction>(step.action))
            fail("nothing pauses where the clock is moved by hand; use: clock +2s");
        auto expect = std::get_if<ExpectAction>(&step.action);
        if (!handClock && expect != nullptr && !expect->within)
            fail("use: expect within TIME TYPE [ARG...], or expect none within TIME [TYPE [ARG...]]");
    }
}

// What stands above the first story belongs to all of them.
void CheckAboveStories(std::span<const ScenarioStep> steps)
{
    const ScenarioStep *other = nullptr;
    for (const ScenarioStep &step : steps) {
        if (std::holds_alternative<StoryAction>(step.action)) {
            if (other == nullptr) return;
            throw Wrong(
                fmt::format("line {}: above the first story, only host lines may stand", other->line));
        }
        if (other == nullptr && !std::holds_alternative<HostChange>(step.action)) other = &step;
    }
}

} // namespace

bool NeedsHandClock(std::span<const ScenarioStep> steps)
{
    return std::ranges::any_of(steps, [](const ScenarioStep &step) {
        if (auto repeat = std::get_if<RepeatAction>(&step.action)) return NeedsHandClock(repeat->steps);
        return std::holds_alternative<StoryAction>(step.action) ||
               std::holds_alternative<ClockAction>(step.action) ||
               std::holds_alternative<LogAction>(step.action) ||
               std::holds_alternative<FateAction>(step.action) ||
               std::holds_alternative<ReceiverAction>(step.action) ||
               std::holds_alternative<RestartAction>(step.action);
    });
}

bool ExpectsAnything(std::span<const ScenarioStep> steps)
{
    return CountOf<ExpectAction>(steps) + CountOf<LogAction>(steps) + CountOf<FateAction>(steps) > 0;
}

std::vector<ScenarioStep> ParseScenario(std::string_view text)
{
    Builder builder;
    for (size_t number = 1; !text.empty(); number++) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(line.size() + 1, text.size()));
        if (line.ends_with('\r')) line.remove_suffix(1);
        try {
            if (line.find('\0') != std::string_view::npos) throw Wrong("a NUL character");
            builder.Line(number, line);
        } catch (const Failure &failure) {
            throw Failure(failure.status, fmt::format("line {}: {}", number, failure.what()));
        }
    }
    auto steps = builder.Finish();
    CheckTimes(steps, NeedsHandClock(steps));
    CheckAboveStories(steps);
    return steps;
}

std::optional<std::string> Difference(const ExpectAction &expected, const std::string &type,
                                      const std::vector<std::string> &arguments)
{
    if (!GlobMatches(expected.type, type)) return "";
    if (!expected.argumentsMatter) return std::nullopt;
    size_t count = expected.arguments.size();
    if (expected.moreAllowed ? arguments.size() < count : arguments.size() != count)
        return fmt::format("{} arguments, not {}{}", arguments.size(), count,
                           expected.moreAllowed ? " or more" : "");
    std::string different;
    for (size_t i = 0; i < count; i++) {
        const ArgumentWord &pattern = expected.arguments[i];
        if (pattern.quoted ? pattern.text == arguments[i] : GlobMatches(pattern.text, arguments[i]))
            continue;
        different += fmt::format("{}argument {} is {}, not {}", different.empty() ? "" : "; ", i + 1,
                                 Quoted(arguments[i]), Quoted(pattern.text));
    }
    if (different.empty()) return std::nullopt;
    return different;
}
