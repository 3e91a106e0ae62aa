#include "keldHandler.h"

#include <cstdio>
#include <string>

namespace {

// Of a volume UUID, for reading and for showing it.
constexpr char kUuidFormat[] = "%08x-%08x-%04hx-%02hhx%02hhx%02hhx%02hhx%02hhx%02hhx";
constexpr std::string_view kUuidConversion = "%U";

} // namespace

const char *KeldVolumeUuid::Format()
{
    std::snprintf(text.data(), text.size(), kUuidFormat, first, second, third, node[0], node[1], node[2],
                  node[3], node[4], node[5]);
    return text.data();
}

namespace KeldRow {

std::string LibraryFormat(std::string format)
{
    for (std::size_t at = 0; (at = format.find(kUuidConversion, at)) != format.npos;)
        format.replace(at, kUuidConversion.size(), kUuidFormat);
    return format;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // proved when the row was built
void LogFailedRead(const Translation &row, const Kel *kel, std::size_t failedAt, int status)
{
    const char *message = failedAt < row.failed.size() ? row.failed[failedAt] : nullptr;
    if (message == nullptr) return;
    if (row.arguments.by == KeldArguments::By::Index) {
        KeldLog(message, status);
        return;
    }
    const char *id = nullptr;
    (void)Kel_GetID(kel, &id);
    KeldLog(message, id, status);
}
#pragma GCC diagnostic pop

void SayUnreadable(std::size_t failedAt, KeldArguments::By by)
{
    if (by == KeldArguments::By::Index)
        KeldSayByItself(KeldFate::Unreadable, "argument %zu", failedAt);
    else
        KeldSayByItself(KeldFate::Unreadable, "one of its arguments");
}

} // namespace KeldRow
