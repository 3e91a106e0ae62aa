#include "timeWords.h"

#include "failure.h"
#include "text.h"

#include <ctime>
#include <fmt/format.h>

namespace {

constexpr std::uint64_t kSecond = 1'000'000;
constexpr int kDaySeconds = 24 * 3600;

std::optional<std::uint64_t> FromLocal(tm parts)
{
    parts.tm_isdst = -1;
    time_t seconds = mktime(&parts);
    return seconds < 0 ? std::nullopt : std::optional(static_cast<std::uint64_t>(seconds) * kSecond);
}

// Reads text as one of the forms, into parts.
bool Matches(const std::string &text, const char *form, tm *parts)
{
    tm read = *parts;
    const char *end = strptime(text.c_str(), form, &read);
    if (end == nullptr || *end != '\0') return false;
    *parts = read;
    return true;
}

bool IsTimeOfDay(const std::string &text, tm *parts)
{
    parts->tm_sec = 0;
    return Matches(text, "%H:%M:%S", parts) || Matches(text, "%H:%M", parts);
}

tm Local(std::uint64_t microseconds)
{
    auto seconds = static_cast<time_t>(microseconds / kSecond);
    tm parts{};
    localtime_r(&seconds, &parts);
    return parts;
}

} // namespace

std::optional<std::uint64_t> ParseTimeWords(std::string_view words, std::uint64_t now)
{
    std::string text(words);
    if (text == "now") return now;
    if (text.starts_with('-')) {
        if (text.ends_with('d')) { // days are no unit of the other durations
            auto hours = ParseDuration(text.substr(1, text.size() - 2) + "h");
            return hours ? std::optional(now - static_cast<std::uint64_t>(hours->count()) * 24 * 1000)
                         : std::nullopt;
        }
        auto before = ParseDuration(words.substr(1));
        return before ? std::optional(now - static_cast<std::uint64_t>(before->count()) * 1000)
                      : std::nullopt;
    }
    if (auto utc = ParseUtcTime(words)) return *utc * kSecond;

    tm today = Local(now);
    tm parts = today;
    if (IsTimeOfDay(text, &parts)) {
        auto time = FromLocal(parts);
        if (time && *time > now) {
            parts.tm_mday--;
            time = FromLocal(parts);
        }
        return time;
    }
    parts = today;
    parts.tm_hour = parts.tm_min = parts.tm_sec = 0;
    for (const char *form : {"%Y-%m-%d", "%Y-%m-%d %H:%M", "%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S"})
        if (Matches(text, form, &parts)) return FromLocal(parts);
    for (int back : {0, 1}) {
        std::string word = back == 0 ? "today" : "yesterday";
        if (!text.starts_with(word)) continue;
        parts.tm_mday -= back;
        std::string rest = text.substr(word.size());
        if (rest.empty()) return FromLocal(parts);
        if (rest.starts_with(' ') && IsTimeOfDay(rest.substr(1), &parts)) return FromLocal(parts);
    }
    return std::nullopt;
}

TimeSpan ParseTimeSpan(const std::string &since, const std::string &until, std::uint64_t now)
{
    auto parse = [&](const char *option, const std::string &text) {
        if (auto time = ParseTimeWords(text, now)) return *time;
        throw Failure(kExitUsage,
                      fmt::format("{}: {} is no time such as 03:12, -2h, \"yesterday 22:00\" or "
                                  "\"2026-03-01 22:00\"",
                                  option, Quoted(text)));
    };
    TimeSpan span{parse("--since", since), until.empty() ? now : parse("--until", until)};
    tm parts = Local(now);
    if (span.until <= span.since && IsTimeOfDay(until, &parts)) span.until += kDaySeconds * kSecond;
    if (span.until < span.since)
        throw Failure(kExitUsage,
                      until.empty() ? "--since lies in the future" : "--until lies before --since");
    return span;
}

std::string ShortTime(std::uint64_t microseconds) { return LocalTime(microseconds).substr(0, 19); }

std::string ShortAge(std::uint64_t microseconds)
{
    std::uint64_t seconds = microseconds / kSecond, minutes = seconds / 60, hours = minutes / 60;
    if (seconds < 60) return fmt::format("{} s", seconds);
    if (minutes < 60) return fmt::format("{} min", minutes);
    if (hours < 24) return fmt::format("{} h {} min", hours, minutes % 60);
    return fmt::format("{} d {} h", hours / 24, hours % 24);
}
