#include "scenarioActions.h"

#include "text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>

namespace {

constexpr unsigned kRepeatMax = 1000000;

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

// expect [none] [within TIME] [TYPE [ARG...] [...]]
ExpectAction ReadExpect(Words words)
{
    ExpectAction expect;
    expect.none = IsPlain(words, 1, "none");
    words = words.subspan(expect.none ? 2 : 1);
    if (IsPlain(words, 0, "within")) {
        expect.within = Duration(words, 1);
        words = words.subspan(2);
    }

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

// clock +TIME | clock set TIME
ClockAction ReadClock(Words words)
{
    if (IsPlain(words, 1, "set") && words.size() == 3)
        if (auto time = ParseUtcTime(words[2].text)) return {0, time};
    if (words.size() == 2 && words[1].text.starts_with('+')) {
        auto duration = ParseDuration(std::string_view(words[1].text).substr(1));
        if (duration && duration->count() % 1000 == 0)
            return {static_cast<std::uint64_t>(duration->count()) / 1000, std::nullopt};
    }
    throw Wrong("use: clock +2s, in whole seconds, or clock set 2026-03-01T11:00:00Z");
}

// 'TEXT' | WORD...
ArgumentWord ReadLine(Words words)
{
    if (words.size() == 1 && words[0].quote != 0) return words[0].AsArgument();
    ArgumentWord line;
    for (const Word &word : words) {
        if (word.quote != 0) throw Wrong("quote all the words of the line, together, or none");
        line.text += (line.text.empty() ? "" : " ") + word.text;
    }
    return line;
}

LogAction ReadLog(Words words)
{
    if (words.size() == 1) throw Wrong("use: log none, or log and the words of a line");
    return {words.size() == 2 && IsPlain(words, 1, "none"), ReadLine(words.subspan(1))};
}

FateAction ReadFate(Words words)
{
    if (words.size() == 1)
        throw Wrong("use: fate and the words of it, such as posted, or held back: within *");
    return {ReadLine(words.subspan(1))};
}

// receiver away | receiver back | receiver deaf
ReceiverAction ReadReceiver(Words words)
{
    if (words.size() == 2 && IsPlain(words, 1, "away")) return ReceiverAction::Away;
    if (words.size() == 2 && IsPlain(words, 1, "back")) return ReceiverAction::Back;
    if (words.size() == 2 && IsPlain(words, 1, "deaf")) return ReceiverAction::Deaf;
    throw Wrong("use: receiver away, receiver back or receiver deaf");
}

RestartAction ReadRestart(Words words)
{
    if (words.size() > 1) throw Wrong("nothing may stand behind restart");
    return {};
}

struct Verb {
    std::string_view name;
    ScenarioAction (*read)(Words words);
};
// clang-format off
constexpr Verb kVerbs[] = {
    {"observe",  [](Words words) -> ScenarioAction { return ReadObserve(words); }},
    {"host",     [](Words words) -> ScenarioAction { return ReadHost(words); }},
    {"pause",    [](Words words) -> ScenarioAction { return ReadPause(words); }},
    {"expect",   [](Words words) -> ScenarioAction { return ReadExpect(words); }},
    {"repeat",   [](Words words) -> ScenarioAction { return ReadRepeat(words); }},
    {"clock",    [](Words words) -> ScenarioAction { return ReadClock(words); }},
    {"log",      [](Words words) -> ScenarioAction { return ReadLog(words); }},
    {"fate",     [](Words words) -> ScenarioAction { return ReadFate(words); }},
    {"receiver", [](Words words) -> ScenarioAction { return ReadReceiver(words); }},
    {"restart",  [](Words words) -> ScenarioAction { return ReadRestart(words); }},
};
// clang-format on

} // namespace

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

ScenarioAction ReadAction(Words words)
{
    for (const Verb &verb : kVerbs)
        if (IsPlain(words, 0, verb.name)) return verb.read(words);
    throw Wrong(
        fmt::format("{}: a line begins with observe, host, pause, expect, repeat, end, story, clock, "
                    "log, fate, receiver or restart",
                    Quoted(words[0].text)));
}
