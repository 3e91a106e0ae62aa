// What several correlators share: datastore names, arguments read by a text, the time.

#include "keldUtil.h"

#include "keldConversion.h"

#include <kltlibs/ktime.h>
#include <knxctl/storageInfo.h>

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
    } catch (...) { // never a cancellation: a handler cannot be cancelled
        return false;
    }
}

// Turns a printf-style text into the library's argument format: the conversions alone, without flags,
// width and precision, a string as a pointer. 0, or EINVAL.
int ConvertFormat(std::string_view text, std::string *format)
{
    constexpr std::string_view kAccepted = "cdiouxsX";
    while (const std::optional<KeldConversion> conversion = KeldTakeConversion(&text)) {
        const char letter = conversion->letter;
        if (kAccepted.find(letter) == kAccepted.npos) return EINVAL;
        (*format += '%') += conversion->length;
        *format += letter == 's' ? 'p' : letter == 'X' ? 'x' : letter;
    }
    return 0;
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
