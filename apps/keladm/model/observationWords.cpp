#include "observationWords.h"

#include "failure.h"
#include "text.h"

#include "kltlibs/kelrecord.h"
#include "kltlibs/msgfmt.h"

#include <cerrno>
#include <charconv>
#include <cstring>
#include <fmt/format.h>
#include <limits>

namespace {

constexpr std::string_view kIdRule = "1 to 127 characters out of A-Z a-z 0-9 . _ -";
constexpr std::string_view kFormats = "%d %i %u %x %X %o %c %s, with h hh l ll z";

// A number's sign and size; nothing when text is no decimal or 0x number of at most 64 bits.
struct Number {
    bool negative = false;
    std::uint64_t magnitude = 0;
};

std::optional<Number> ParseNumber(std::string_view text)
{
    Number number;
    if (text.starts_with('-')) {
        number.negative = true;
        text.remove_prefix(1);
    }
    bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (hex) text.remove_prefix(2);
    const char *end = text.data() + text.size();
    auto [stop, status] = std::from_chars(text.data(), end, number.magnitude, hex ? 16 : 10);
    if (text.empty() || status != std::errc() || stop != end) return std::nullopt;
    return number;
}

// The integer types, narrowest first: the order in which a guess tries them.
struct IntegerType {
    std::uint32_t type;
    std::string_view conversion;
    std::string_view range;
    std::uint64_t negativeMax; // magnitudes
    std::uint64_t positiveMax;
};
// clang-format off
constexpr IntegerType kIntegerTypes[] = {
    {MSGFMT_TYPE_INT32,  "%d",  "-2147483648 to 2147483647", 0x80000000,         0x7FFFFFFF},
    {MSGFMT_TYPE_UINT32, "%u",  "0 to 4294967295",           0,                  0xFFFFFFFF},
    {MSGFMT_TYPE_INT64,  "%ld", "-2^63 to 2^63-1",           0x8000000000000000, 0x7FFFFFFFFFFFFFFF},
    {MSGFMT_TYPE_UINT64, "%lu", "0 to 2^64-1",               0,                  0xFFFFFFFFFFFFFFFF},
};
// clang-format on

bool Holds(const IntegerType &type, const Number &number)
{
    return number.magnitude <= (number.negative ? type.negativeMax : type.positiveMax);
}

std::string_view GuessConversion(const ArgumentWord &word)
{
    std::string_view digits = word.text;
    if (digits.starts_with('-')) digits.remove_prefix(1);
    bool leadingZero = digits.size() > 1 && digits[0] == '0' && digits[1] >= '0' && digits[1] <= '9';
    auto number = ParseNumber(word.text);
    if (word.quoted || leadingZero || !number) return "%s";
    for (const IntegerType &type : kIntegerTypes)
        if (Holds(type, *number)) return type.conversion;
    return "%s";
}

TypedArgument ReadArgument(std::uint32_t type, std::string_view conversion, size_t index,
                           const ArgumentWord &word)
{
    if (type == MSGFMT_TYPE_STRING) {
        if (!word.quoted && word.text == "(null)") return {type, 0, std::nullopt};
        return {type, 0, word.text};
    }
    auto wrong = [&](std::string_view right) {
        return Failure(kExitUsage, fmt::format("argument {}: {} does not fit {}, which takes {}", index + 1,
                                               Quoted(word.text), conversion, right));
    };
    if (conversion.ends_with('c')) {
        if (word.text.size() != 1) throw wrong("one character");
        return {type, static_cast<std::uint64_t>(static_cast<signed char>(word.text[0])), std::nullopt};
    }
    for (const IntegerType &integer : kIntegerTypes) {
        if (integer.type != type) continue;
        auto number = ParseNumber(word.text);
        if (!number || !Holds(integer, *number))
            throw wrong(fmt::format("a decimal or 0x number from {}", integer.range));
        return {type, number->negative ? 0 - number->magnitude : number->magnitude, std::nullopt};
    }
    throw wrong("something that cannot be sent");
}

void CheckId(const std::string &id)
{
    constexpr std::string_view kAllowed =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-";
    size_t bad = id.find_first_not_of(kAllowed);
    if (bad != std::string::npos)
        throw Failure(kExitUsage,
                      fmt::format("observation ID {}: character {} is {}; an ID is {}", Quoted(id), bad + 1,
                                  Quoted(std::string_view(id).substr(bad, 1)), kIdRule));
    if (id.empty() || id.size() > KELRECORD_ID_CHARS_MAX)
        throw Failure(kExitUsage, fmt::format("observation ID {}: {} characters; an ID is {}", Quoted(id),
                                              id.size(), kIdRule));
}

} // namespace

std::vector<TypedArgument> ReadArguments(std::string_view format, std::span<const ArgumentWord> words)
{
    std::vector<TypedArgument> arguments;
    const std::string text(format);
    const char *rest = text.c_str();
    const char *start = rest;
    MsgFmtType type = MSGFMT_TYPE_INVALID;
    int status = 0;
    while ((status = MsgFmt_NextConversion(&rest, &start, &type)) == 0) {
        std::string_view conversion(start, static_cast<size_t>(rest - start));
        if (arguments.size() == words.size())
            throw Failure(kExitUsage,
                          fmt::format("argument {}, for {}, is missing: the format {} takes more than "
                                      "the {} given",
                                      words.size() + 1, conversion, Quoted(text), words.size()));
        arguments.push_back(ReadArgument(type, conversion, arguments.size(), words[arguments.size()]));
    }
    if (status != ENOENT)
        throw Failure(kExitUsage,
                      fmt::format("format {}: conversion {} cannot be sent; use {} (%% for a percent sign)",
                                  Quoted(text), arguments.size() + 1, kFormats));
    if (arguments.size() < words.size())
        throw Failure(kExitUsage, fmt::format("argument {} ({}) is one too many: the format {} takes {}",
                                              arguments.size() + 1, Quoted(words[arguments.size()].text),
                                              Quoted(text), arguments.size()));
    return arguments;
}

std::string GuessFormat(std::span<const ArgumentWord> words)
{
    std::string format;
    for (const ArgumentWord &word : words) {
        if (!format.empty()) format += ' ';
        format += GuessConversion(word);
    }
    return format;
}

int ParseContext(std::string_view text)
{
    if (text == "user") return KELPRODUCER_USER_CONTEXT;
    std::string_view digits = text;
    if (digits.starts_with("async-")) digits.remove_prefix(6);
    int context = -1;
    const char *end = digits.data() + digits.size();
    auto [stop, code] = std::from_chars(digits.data(), end, context);
    int highest = digits.size() < text.size() ? KELPRODUCER_ASYNC_CONTEXTS - 1 : KELPRODUCER_USER_CONTEXT;
    if (code != std::errc() || stop != end || context < 0 || context > highest)
        throw Failure(kExitUsage,
                      fmt::format("context {}: use user (or 22) for programs, 0 to 21 (or async-0 to "
                                  "async-21) for the kernel's",
                                  Quoted(text)));
    return context;
}

Observation MakeObservation(int context, const std::string &id, const std::optional<std::string> &format,
                            std::span<const ArgumentWord> words)
{
    CheckId(id);
    if (words.size() > KELRECORD_ARGUMENTS_MAX)
        throw Failure(kExitUsage, fmt::format("{} arguments; an observation has at most {}", words.size(),
                                              int{KELRECORD_ARGUMENTS_MAX}));
    std::string message = format ? *format : GuessFormat(words);
    std::vector<TypedArgument> arguments = ReadArguments(message, words);

    std::vector<KelProducerArg> args;
    for (const TypedArgument &argument : arguments)
        args.push_back({argument.type, argument.integer, argument.text ? argument.text->c_str() : nullptr});

    Observation observation{context, std::vector<char>(KELPRODUCER_RECORD_BYTES_MAX)};
    size_t length = 0;
    int error = KelRecord_BuildFromArgs(observation.record.data(), observation.record.size(), &length, 0,
                                        id.c_str(), message.c_str(), args.data(), args.size());
    if (error == ENOSPC)
        throw Failure(kExitUsage, fmt::format("{}: the observation is larger than {} bytes", id,
                                              int{KELPRODUCER_RECORD_BYTES_MAX}));
    if (error != 0) throw Failure(kExitUsage, fmt::format("{}: {}", id, std::strerror(error)));
    observation.record.resize(length);
    observation.record.shrink_to_fit();
    return observation;
}
