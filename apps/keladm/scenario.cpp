#include "scenario.h"

#include "commands.h"
#include "text.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>
#include <span>

namespace {

constexpr unsigned kRepeatMax = 1000000;
constexpr size_t kNestingMax = 8;

Failure Wrong(const std::string &what) { return Failure(kExitUsage, what); }

struct Word {
    std::string text;
    char quote = 0; // ' or " or none

    ArgumentWord AsArgument() const { return {text, quote != 0}; }
};
using Words = std::span<const Word>;

// Reads the word between double or single quotes at the start of *rest.
Word TakeQuoted(std::string_view *rest)
{
    Word word{"", rest->front()};
    for (size_t i = 1; i < rest->size(); i++) {
        char c = (*rest)[i];
        if (c == word.quote) {
            rest->remove_prefix(i + 1);
            if (!rest->empty() && rest->front() != ' ' && rest->front() != '\t')
                throw Wrong("a blank is missing behind a closing quote");
            return word;
        }
        if (c == '\\' && word.quote == '"') {
            char marked = ++i < rest->size() ? (*rest)[i] : '\0';
            switch (marked) {
            case 'n':
                c = '\n';
                break;
            case 't':
                c = '\t';
                break;
            case '"':
            case '\\':
                c = marked;
                break;
            default:
                throw Wrong(
                    "inside double quotes, a backslash stands before n, t, \" or another backslash");
            }
        }
        word.text += c;
    }
    throw Wrong(fmt::format("the closing {} is missing", word.quote));
}

std::vector<Word> SplitWords(std::string_view line)
{
    constexpr std::string_view kBlanks = " \t";
    std::vector<Word> words;
    for (;;) {
        line.remove_prefix(std::min(line.find_first_not_of(kBlanks), line.size()));
        if (line.empty() || line.front() == '#') return words;
        if (line.front() == '"' || line.front() == '\'') {
            words.push_back(TakeQuoted(&line));
            continue;
        }
        std::string_view text = line.substr(0, line.find_first_of(kBlanks));
        if (text.find_first_of("\"'") != std::string_view::npos)
            throw Wrong(fmt::format("{}: a quote inside a word; quote the whole word", Printable(text)));
        words.push_back({std::string(text), 0});
        line.remove_prefix(text.size());
    }
}

bool IsPlain(Words words, size_t index, std::string_view text)
{
    return index < words.size() && words[index].quote == 0 && words[index].text == text;
}

std::chrono::milliseconds Duration(Words words, size_t index)
{
    auto duration = index < words.size() ? ParseDuration(words[index].text) : std::nullopt;
    if (!duration)
        throw Wrong(fmt::format("{}: a time is written 2s, 500ms or 1m",
                                index < words.size() ? Quoted(words[index].text) : "the time is missing"));
    return *duration;
}

std::vector<ArgumentWord> AsArguments(Words words)
{
    std::vector<ArgumentWord> arguments;
    for (const Word &word : words)
        arguments.push_back(word.AsArgument());
    return arguments;
}

// observe [@CONTEXT] ID ["FORMAT"] [ARG...]
Observation ReadObserve(Words words)
{
    int context = KELPRODUCER_USER_CONTEXT;
    words = words.subspan(1);
    if (!words.empty() && words[0].quote == 0 && words[0].text.starts_with('@')) {
        context = ParseContext(std::string_view(words[0].text).substr(1));
        words = words.subspan(1);
    }
    if (words.empty())
        throw Wrong("the observation ID is missing: observe [@CONTEXT] ID [\"FORMAT\"] [ARG...]");
    std::string id = words[0].text;
    words = words.subspan(1);

    std::optional<std::string> format;
    if (!words.empty() && words[0].quote == '"') {
        format = words[0].text;
        words = words.subspan(1);
    }
    return MakeObservation(context, id, format, AsArguments(words));
}

// host set NAME VALUE | host mkdir NAME | host remove NAME
HostChange ReadHost(Words words)
{
    if (IsPlain(words, 1, "set") && words.size() == 4)
        return MakeHostChange(HostVerb::Set, words[2].text, words[3].text);
    if (IsPlain(words, 1, "mkdir") && words.size() == 3)
        return MakeHostChange(HostVerb::MakeDirectory, words[2].text);
    if (IsPlain(words, 1, "remove") && words.size() == 3)
        return MakeHostChange(HostVerb::Remove, words[2].text);
    throw Wrong(
        "use: host set NAME VALUE, host mkdir NAME or host remove NAME (quote what has blanks in it)");
}

PauseAction ReadPause(Words words)
{
    if (words.size() > 2) throw Wrong("use: pause TIME");
    return {Duration(words, 1)};
}

// expect [none] within TIME [TYPE [ARG...] [...]]
ExpectAction ReadExpect(Words words)
{
    ExpectAction expect;
    expect.none = IsPlain(words, 1, "none");
    size_t next = expect.none ? 2 : 1;
    if (!IsPlain(words, next, "within"))
        throw Wrong("use: expect within TIME TYPE [ARG...], or expect none within TIME [TYPE [ARG...]]");
    expect.within = Duration(words, next + 1);
    words = words.subspan(next + 2);

    if (words.empty() && !expect.none) throw Wrong("the expected event's type ID is missing");
    expect.type = words.empty() ? "*" : words[0].text;
    bool wildcards = expect.type.find_first_of("*?") != std::string::npos;
    bool named =
        std::ranges::any_of(std::to_array<std::string_view>({"nox.problem.", "nox.audit.", "nox.clear."}),
                            [&](std::string_view prefix) { return expect.type.starts_with(prefix); });
    if (!wildcards && !named)
        throw Wrong(fmt::format("{}: an event's type ID begins with nox.problem., nox.audit. or nox.clear.",
                                Quoted(expect.type)));
    if (words.size() <= 1) return expect;

    words = words.subspan(1);
    expect.argumentsMatter = true;
    expect.moreAllowed = IsPlain(words, words.size() - 1, "...");
    expect.arguments = AsArguments(words.first(words.size() - (expect.moreAllowed ? 1 : 0)));
    return expect;
}

RepeatAction ReadRepeat(Words words)
{
    RepeatAction repeat;
    if (words.size() != 2) throw Wrong("use: repeat N");
    const std::string &text = words[1].text;
    auto [end, status] = std::from_chars(text.data(), text.data() + text.size(), repeat.count);
    if (status != std::errc() || end != text.data() + text.size() || repeat.count < 1 ||
        repeat.count > kRepeatMax)
        throw Wrong(fmt::format("repeat {}: use a number from 1 to {}", Quoted(text), kRepeatMax));
    return repeat;
}

using Action = decltype(ScenarioStep::action);

struct Verb {
    std::string_view name;
    Action (*read)(Words words);
};
// clang-format off
constexpr Verb kVerbs[] = {
    {"observe", [](Words words) -> Action { return ReadObserve(words); }},
    {"host",    [](Words words) -> Action { return ReadHost(words); }},
    {"pause",   [](Words words) -> Action { return ReadPause(words); }},
    {"expect",  [](Words words) -> Action { return ReadExpect(words); }},
    {"repeat",  [](Words words) -> Action { return ReadRepeat(words); }},
};
// clang-format on

Action ReadAction(Words words)
{
    for (const Verb &verb : kVerbs)
        if (IsPlain(words, 0, verb.name)) return verb.read(words);
    throw Wrong(fmt::format("{}: a line begins with observe, host, pause, expect, repeat or end",
                            Quoted(words[0].text)));
}

// The lines so far. Blocks that are open stand on a stack; the outermost is the scenario.
class Builder {
public:
    void Line(size_t number, std::string_view text)
    {
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
        return std::string(text.substr(first, text.find_last_not_of(" \t") + 1 - first));
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

} // namespace

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
    return builder.Finish();
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
