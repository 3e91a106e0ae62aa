// The grammar of a printf-style conversion: %, one flag, width, precision, length, letter.
//
// The one place for all that looks into a format: rows while they compile, and producers' message texts by
// which arguments are read at run time. What a letter means, and which are accepted, the caller decides.
#ifndef KELD_CONVERSION_H
#define KELD_CONVERSION_H

#include <algorithm>
#include <optional>
#include <string_view>

struct KeldConversion {
    std::string_view length; // "", "h", "hh", "l", "ll" or "L"
    char letter = '\0';      // NUL when the text ends before it
};

// Takes the next conversion, and all before it, off the front of text; "%%" is none. Nothing, with text
// empty, when there is none left. Any thread.
constexpr std::optional<KeldConversion> KeldTakeConversion(std::string_view *text)
{
    constexpr std::string_view kDigits = "0123456789";
    const auto take = [text](std::string_view set, std::size_t most) {
        const std::size_t end = std::min({text->find_first_not_of(set), text->size(), most});
        const std::string_view taken = text->substr(0, end);
        text->remove_prefix(end);
        return taken;
    };
    do {
        text->remove_prefix(std::min(text->find('%'), text->size()));
        if (text->empty()) return std::nullopt;
        text->remove_prefix(1);
    } while (!take("%", 1).empty());
    take(" #+-0", 1);
    take(kDigits, text->npos);
    if (!take(".", 1).empty()) take(kDigits, text->npos);
    KeldConversion conversion;
    conversion.length = take("h", 2);
    if (conversion.length.empty()) conversion.length = take("l", 2);
    if (conversion.length.empty()) conversion.length = take("L", 1);
    if (!text->empty()) {
        conversion.letter = text->front();
        text->remove_prefix(1);
    }
    return conversion;
}

#endif
