// Observations from words: of a command line, or of a scenario's line.
#ifndef KELADM_OBSERVATIONWORDS_H
#define KELADM_OBSERVATIONWORDS_H

#include "kelproducer.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

// One argument as its author wrote it. What was quoted is a text whatever it looks like.
struct ArgumentWord {
    std::string text;
    bool quoted = false;
};

struct TypedArgument {
    std::uint32_t type = 0;    // MsgFmtType
    std::uint64_t integer = 0; // of a signed one: extended to 64 bits
    std::optional<std::string> text;

    bool operator==(const TypedArgument &) const = default;
};

// Reads the words as the conversions of format ask for. The unquoted word (null) is a null text.
// Throws Failure naming the argument, what is wrong with it, and what would be right.
std::vector<TypedArgument> ReadArguments(std::string_view format, std::span<const ArgumentWord> words);

// A message format for words that came without one: the narrowest of %d %u %ld %lu that holds a decimal
// or 0x number, %s for everything else (a number with leading zeros too: it is somebody's name).
std::string GuessFormat(std::span<const ArgumentWord> words);

// "user", "22", "7" or "async-7". Throws Failure.
int ParseContext(std::string_view text);

struct Observation {
    int context = KELPRODUCER_USER_CONTEXT;
    std::vector<char> record; // its time stamp is written when it is sent
};

// Without a format, one is guessed. Throws Failure for an ID, a format or an argument that is wrong.
Observation MakeObservation(int context, const std::string &id, const std::optional<std::string> &format,
                            std::span<const ArgumentWord> words);

#endif
