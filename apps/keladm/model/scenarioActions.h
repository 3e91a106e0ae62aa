// One line of a scenario: its words, and the action that they say.
#ifndef KELADM_SCENARIOACTIONS_H
#define KELADM_SCENARIOACTIONS_H

#include "scenario.h"

#include <span>
#include <string>
#include <string_view>
#include <vector>

struct Word {
    std::string text;
    char quote = 0; // ' or " or none

    ArgumentWord AsArgument() const { return {text, quote != 0}; }
};
using Words = std::span<const Word>;

// The words of a line up to a comment. Throws Failure.
std::vector<Word> SplitWords(std::string_view line);

// True where this word stands there without quotes.
bool IsPlain(Words words, size_t index, std::string_view text);

// What a line says; a repeat comes without its steps. Throws Failure saying what would be right.
ScenarioAction ReadAction(Words words);

// A line's author has to change it.
inline Failure Wrong(const std::string &what) { return Failure(kExitUsage, what); }

#endif
