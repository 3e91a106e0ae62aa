// What several correlators share: datastore names, arguments read by a text, the time.

#include "keldUtil.h"

#include "keldLog.h"

#include <kltlibs/ktime.h>
#include <knxctl/storageInfo.h>

#include <cerrno>
#include <cstdarg>
#include <exception>
#include <memory>
#include <string_view>

namespace {

constexpr std::string_view kVolumes = "/dsfs/volumes/";

// A file system that cannot report is not a match.
bool GoesBy(const KnxCtl::Storage::FileSystem &fileSystem, std::string_view name)
{
    try {
        return fileSystem.GetUuid() == name || fileSystem.GetName() == name;
    } catch (const std::exception &) {
        return false;
    }
}

// Turns a printf-style text into the library's argument format: the conversions alone, without flags,
// width and precision, a string as a pointer. 0, or EINVAL.
int ConvertFormat(std::string_view text, std::string *format)
{
    enum class State { Text, Begun, Width, Precision, SecondLength, Conversion };
    const auto isOneOf = [](char c, std::string_view set) { return set.find(c) != set.npos; };
    constexpr std::string_view kDigits = "0123456789";

    State state = State::Text;
    char length = 0;
    for (const char c : text) {
        switch (state) { // falls through to whatever may follow
        case State::Text:
            if (c == '%') state = State::Begun;
            continue;
        case State::Begun:
            if (c == '%') {
                state = State::Text;
                continue;
            }
            *format += '%';
            state = State::Width;
            if (isOneOf(c, " #+-0")) continue;
            [[fallthrough]];
        case State::Width:
            if (isOneOf(c, kDigits)) continue;
            if (c == '.') {
                state = State::Precision;
                continue;
            }
            [[fallthrough]];
        case State::Precision:
            if (isOneOf(c, kDigits)) continue;
            if (isOneOf(c, "hlL")) {
                *format += length = c;
                state = c == 'L' ? State::Conversion : State::SecondLength;
                continue;
            }
            [[fallthrough]];
        case State::SecondLength:
            if (state == State::SecondLength && c == length) {
                *format += c;
                state = State::Conversion;
                continue;
            }
            [[fallthrough]];
        case State::Conversion:
            if (!isOneOf(c, "cdiouxsX")) return EINVAL;
            *format += c == 's' ? 'p' : c == 'X' ? 'x' : c;
            state = State::Text;
            continue;
        }
        KeldNotReached("apps/keld/keldUtil", 260);
    }
    return state == State::Text ? 0 : EINVAL;
}

} // namespace

std::string KeldLookupDatastore(const char *path)
{
    std::string_view name = path == nullptr ? "" : path;
    if (!name.starts_with(kVolumes)) return "(invalid)";
    name.remove_prefix(kVolumes.size());
    name = name.substr(0, name.find('/'));

    const KnxCtl::Storage::StorageInfoImpl storage;
    for (const std::unique_ptr<KnxCtl::Storage::FileSystem> &fileSystem : storage.GetFileSystems())
        if (GoesBy(*fileSystem, name)) return std::string(name);
    return "(unknown)";
}

int KeldGetArgsByFormat(const Kel *kel, const char *text, ...)
{
    std::string format;
    if (const int error = ConvertFormat(text, &format); error != 0) return error;
    std::va_list destinations;
    va_start(destinations, text);
    const int status = Kel_GetArgsVA(kel, 0, format.c_str(), destinations);
    va_end(destinations);
    return status;
}

std::uint64_t KeldNowSeconds() { return KTime_WallSeconds(); }
