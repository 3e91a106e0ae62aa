// Scenario files as their authors should not write them.
//
// What is understood is written out anew, step by step, and must then be understood the same.
#include "fuzz.h"

#include <algorithm>
#include <failure.h>
#include <scenario.h>

namespace {

// An event that looks exactly as the expectation is written, unless that holds wildcards.
void CheckExpectation(const ExpectAction &expect)
{
    std::vector<std::string> arguments;
    for (const ArgumentWord &word : expect.arguments)
        arguments.push_back(word.text);
    FUZZ_CHECK(Meets(expect, expect.type, arguments));
    arguments.emplace_back("more");
    FUZZ_CHECK(Meets(expect, expect.type, arguments) == (expect.moreAllowed || !expect.argumentsMatter));
}

// The steps as lines, which end in a blank, as one may end in a carriage return. Line numbers ascend.
std::string WriteOut(const std::vector<ScenarioStep> &steps, std::size_t *line)
{
    std::string text;
    for (const ScenarioStep &step : steps) {
        FUZZ_CHECK(step.line > *line && !step.source.empty());
        *line = step.line;
        text += step.source + " \n";
        if (const auto *repeat = std::get_if<RepeatAction>(&step.action))
            text += WriteOut(repeat->steps, line) + "end\n";
        else if (const auto *observation = std::get_if<Observation>(&step.action))
            FUZZ_CHECK(MakeKel({observation->record.data(), observation->record.size()}) != nullptr);
        else if (const auto *expect = std::get_if<ExpectAction>(&step.action))
            CheckExpectation(*expect);
    }
    return text;
}

// Nothing where text is no scenario.
std::optional<std::string> ReadAndWriteOut(std::string_view text)
{
    std::size_t line = 0;
    try {
        return WriteOut(ParseScenario(text), &line);
    } catch (const Failure &failure) {
        FUZZ_CHECK(failure.status == kExitUsage);
        FUZZ_CHECK(std::sscanf(failure.what(), "line %zu: ", &line) == 1 && line > 0);
        FUZZ_CHECK(line <= 1 + static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')));
        return std::nullopt;
    }
}

} // namespace

void Fuzz(std::string_view input)
{
    const auto written = ReadAndWriteOut(input);
    if (written) FUZZ_CHECK(ReadAndWriteOut(*written) == written);
}
