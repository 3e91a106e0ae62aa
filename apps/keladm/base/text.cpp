#include "text.h"

#include "console.h"
#include "failure.h"

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

namespace {

std::string TimeText(std::uint64_t microseconds, tm *(*convert)(const time_t *, tm *), char between,
                     const char *zone)
{
    auto seconds = static_cast<time_t>(microseconds / 1000000);
    tm parts{};
    char date[32], time[32];
    if (convert(&seconds, &parts) == nullptr || strftime(date, sizeof date, "%F", &parts) == 0 ||
        strftime(time, sizeof time, "%T", &parts) == 0)
        return fmt::format("{} us", microseconds);
    return fmt::format("{}{}{}.{:06}{}", date, between, time, microseconds % 1000000, zone);
}

struct Character {
    bool valid;
    std::uint32_t code;
    size_t bytes; // one where it is not valid
};

// The first character of a text that is not empty and should be UTF-8.
Character FirstCharacter(std::string_view text)
{
    auto first = static_cast<unsigned char>(text[0]);
    if (first < 0x80) return {true, first, 1};
    size_t bytes = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    constexpr std::uint32_t kLowest[] = {0, 0, 0x80, 0x800, 0x10000}; // that needs so many bytes
    constexpr Character kNone{false, 0, 1};
    if (first < 0xC0 || first > 0xF7 || text.size() < bytes) return kNone;
    std::uint32_t code = first & (0x7FU >> bytes);
    for (char next : text.substr(1, bytes - 1)) {
        if ((static_cast<unsigned char>(next) & 0xC0) != 0x80) return kNone;
        code = code << 6 | (static_cast<unsigned char>(next) & 0x3FU);
    }
    bool surrogate = code >= 0xD800 && code <= 0xDFFF;
    if (code < kLowest[bytes] || code > 0x10FFFF || surrogate) return kNone;
    return {true, code, bytes};
}

// Control characters beyond ASCII, line ends, and what turns the direction of writing: a terminal obeys
// them, and its reader is deceived.
bool IsTreacherous(std::uint32_t code)
{
    return (code >= 0x80 && code <= 0x9F) || code == 0x061C || code == 0x200E || code == 0x200F ||
           (code >= 0x2028 && code <= 0x202E) || (code >= 0x2066 && code <= 0x2069);
}

constexpr size_t kFileBytesMax = 16 << 20;

} // namespace

bool GlobMatches(std::string_view pattern, std::string_view text)
{
    // One step back to the last "*" is enough: an earlier one never has to take more.
    size_t p = 0, t = 0;
    size_t star = std::string_view::npos, starText = 0;
    while (t < text.size()) {
        if (p < pattern.size() && pattern[p] == '*') {
            star = p++;
            starText = t;
        } else if (p < pattern.size() && (pattern[p] == '?' || pattern[p] == text[t])) {
            p++;
            t++;
        } else if (star != std::string_view::npos) {
            p = star + 1;
            t = ++starText;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == '*')
        p++;
    return p == pattern.size();
}

std::string Printable(std::string_view text)
{
    std::string shown;
    while (!text.empty()) {
        Character character = FirstCharacter(text);
        std::string_view bytes = text.substr(0, character.bytes);
        text.remove_prefix(character.bytes);
        if (character.code == '\n')
            shown += "\\n";
        else if (character.code == '\t')
            shown += "\\t";
        else if (character.code == '\r')
            shown += "\\r";
        else if (!character.valid || character.code < 0x20 || character.code == 0x7F)
            shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(bytes[0]));
        else if (IsTreacherous(character.code))
            shown += fmt::format("\\u{:04x}", character.code);
        else
            shown += bytes;
    }
    return shown;
}

std::string PrintableLines(std::string_view text)
{
    std::string shown;
    for (;;) {
        size_t end = text.find('\n');
        shown += Printable(text.substr(0, end));
        if (end == std::string_view::npos) return shown;
        shown += '\n';
        text.remove_prefix(end + 1);
    }
}

bool IsUtf8(std::string_view text)
{
    while (!text.empty()) {
        Character character = FirstCharacter(text);
        if (!character.valid) return false;
        text.remove_prefix(character.bytes);
    }
    return true;
}

std::string Quoted(std::string_view text)
{
    std::string marked;
    for (char c : text) {
        if (c == '"' || c == '\\') marked += '\\';
        marked += c;
    }
    return '"' + Printable(marked) + '"';
}

std::string LocalTime(std::uint64_t microseconds) { return TimeText(microseconds, localtime_r, ' ', ""); }

std::string UtcTime(std::uint64_t microseconds) { return TimeText(microseconds, gmtime_r, 'T', "Z"); }

std::optional<std::uint64_t> ParseUtcTime(std::string_view text)
{
    tm parts{};
    const std::string copy(text);
    const char *end = strptime(copy.c_str(), "%Y-%m-%dT%H:%M:%SZ", &parts);
    if (end == nullptr || *end != '\0') return std::nullopt;
    time_t seconds = timegm(&parts);
    return seconds < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(seconds));
}

std::optional<std::chrono::milliseconds> ParseDuration(std::string_view text)
{
    double number = 0;
    auto [end, error] =
        std::from_chars(text.data(), text.data() + text.size(), number, std::chars_format::fixed);
    std::string_view unit(end, static_cast<size_t>(text.data() + text.size() - end));
    if (error != std::errc() || text.starts_with('-') || !std::isfinite(number)) return std::nullopt;

    double milliseconds = unit == "ms"                  ? number
                          : unit.empty() || unit == "s" ? number * 1000
                          : unit == "m"                 ? number * 60 * 1000
                          : unit == "h"                 ? number * 3600 * 1000
                                                        : -1;
    if (milliseconds < 0 || milliseconds > 1000.0 * 3600 * 1000) return std::nullopt;
    return std::chrono::milliseconds(std::llround(milliseconds));
}

std::string DurationText(std::chrono::milliseconds duration)
{
    return fmt::format("{:g} s", static_cast<double>(duration.count()) / 1000);
}

std::string HexText(std::string_view bytes, size_t bytesMax)
{
    std::string text;
    for (size_t i = 0; i < bytes.size() && i < bytesMax; i++) {
        if (i > 0 && i % 8 == 0) text += ' ';
        text += fmt::format("{:02x}", static_cast<unsigned char>(bytes[i]));
    }
    if (bytes.size() > bytesMax) text += fmt::format(" ... ({} more bytes)", bytes.size() - bytesMax);
    return text;
}

std::string ReadFile(const std::string &file)
{
    UniqueFd fd(open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::string content;
    char buffer[64 * 1024];
    ssize_t count = fd ? 1 : -1;
    while (count > 0) {
        count = read(fd.Get(), buffer, sizeof buffer);
        if (count > 0) content.append(buffer, static_cast<size_t>(count));
        if (content.size() > kFileBytesMax)
            throw Failure(kExitFailed, fmt::format("{}: more than {} MiB", file, kFileBytesMax >> 20));
    }
    if (count < 0) throw Failure(kExitFailed, fmt::format("{}: {}", file, std::strerror(errno)));
    return content;
}
