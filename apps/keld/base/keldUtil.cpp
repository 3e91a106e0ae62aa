// What several correlators share: datastore names, arguments read by a text, the time.

#include "keldUtil.h"

#include <kltlibs/ktime.h>
#include <knxctl/storageInfo.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <memory>
#include <string_view>

namespace {

constexpr std::string_view kVolumes = "/dsfs/volumes/";

// A file system that cannot report is not a match.
bool GoesBy(const KnxCtl::Storage::FileSystem &fileSystem, std::string_view name)
{
    try {
        return fileSystem.GetUuid() == name || fileSystem.GetName() == name;
    } catch (...) { // a handler cannot be cancelled: nothing else comes this way
        return false;
    }
}

// Turns a printf-style text into the library's argument format: the conversions alone, without flags,
// width and precision, a string as a pointer. 0, or EINVAL.
int ConvertFormat(std::string_view text, std::string *format)
{
    constexpr std::string_view kDigits = "0123456789";
    const auto take = [&text](std::string_view set, std::size_t most) {
        const std::size_t end = std::min({text.find_first_not_of(set), text.size(), most});
        const std::string_view taken = text.substr(0, end);
        text.remove_prefix(end);
        return taken;
    };
    for (;;) {
        text.remove_prefix(std::min(text.find('%'), text.size()));
        if (text.empty()) return 0;
        text.remove_prefix(1);
        if (!take("%", 1).empty()) continue;
        take(" #+-0", 1);
        take(kDigits, text.npos);
        if (!take(".", 1).empty()) take(kDigits, text.npos);
        std::string_view length = take("h", 2);
        if (length.empty()) length = take("l", 2);
        if (length.empty()) length = take("L", 1);
        const std::string_view conversion = take("cdiouxsX", 1);
        if (conversion.empty()) return EINVAL;
        (*format += '%') += length;
        *format += conversion == "s" ? "p" : conversion == "X" ? "x" : conversion;
    }
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
