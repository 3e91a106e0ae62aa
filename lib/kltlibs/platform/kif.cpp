// The kernel's nodes, options and build signature, out of the host inventory.
#include "kltlibs/kif.h"

#include "diagnostic.h"
#include "hostInventory.h"
#include "kltlibs/ktime.h"
#include "kltlibs/str.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <variant>
#include <vector>

struct KifParamList {
    std::vector<std::variant<std::string, std::int64_t>> values;
};

namespace {

using HostInventory::Path;

struct StatusRow {
    KnxReturnStatus status;
    int error;
};

// The first row of an error gives its status.
constexpr StatusRow kStatuses[] = {
    {KNX_OK, 0},
    {KNX_NOT_FOUND, ENOENT},
    {KNX_BAD_PARAM, EINVAL},
    {KNX_BAD_PARAM, ERANGE},
    {KNX_NO_PERMISSION, EACCES},
    {KNX_NO_PERMISSION, EPERM},
    {KNX_NO_MEMORY, ENOMEM},
};

KnxReturnStatus StatusOf(int error)
{
    const auto row = std::find_if(std::begin(kStatuses), std::end(kStatuses),
                                  [=](const StatusRow &r) { return r.error == error; });
    return row != std::end(kStatuses) ? row->status : KnxReturnStatus{KNX_FAILURE};
}

struct OptionRow {
    const char *group, *name;
    std::int64_t current; // where the inventory has none
};

constexpr OptionRow kOptions[] = {
    {"Misc", "KelAsyncEnable", 0},
    {"Net", "LinkFlappingThreshold", 60},
    {"PageRetire", "ThresholdInterval", 10},
    {"PageRetire", "ApeiLoggingEnabled", 1},
};

constexpr std::uint64_t kPageRetireThreshold = 1000; // where the inventory has none

const std::string *TextAt(const KifParamList *list, std::size_t index)
{
    return list != nullptr && index < list->values.size() ? std::get_if<std::string>(&list->values[index])
                                                          : nullptr;
}

// The one integer that a list consists of; null otherwise.
const std::int64_t *OneInteger(const KifParamList *list)
{
    return list != nullptr && list->values.size() == 1 ? std::get_if<std::int64_t>(&list->values[0])
                                                       : nullptr;
}

// 0 with the inventory path of the option that an instance names.
int OptionPath(const KifParamList *instance, Path *path)
{
    const std::string *group = TextAt(instance, 0), *name = TextAt(instance, 1);
    if (group == nullptr || name == nullptr || instance->values.size() != 2) return EINVAL;
    *path = {"kernel", "options", *group, *name};
    return 0;
}

int GetOption(const KifParamList *instance, KifIntOption *option)
{
    Path path;
    if (const int error = OptionPath(instance, &path); error != 0) return error;
    const int error = HostInventory::ReadInteger(path, INT64_MIN, INT64_MAX, &option->current);
    if (error != ENOENT) return error;
    const auto row = std::find_if(std::begin(kOptions), std::end(kOptions), [&](const OptionRow &r) {
        return path[2] == r.group && path[3] == r.name;
    });
    if (row == std::end(kOptions)) return ENOENT;
    option->current = row->current;
    return 0;
}

int HexDigit(char c)
{
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// The 16 bytes of a UUID text, eight, four, four, four and twelve digits; false for any other text.
bool ParseUuid(const std::string &text, unsigned char raw[16])
{
    constexpr std::string_view shape = "hhhhhhhh-hhhh-hhhh-hhhh-hhhhhhhhhhhh";
    if (text.size() != shape.size()) return false;
    std::size_t digits = 0;
    for (std::size_t at = 0; at < shape.size(); ++at) {
        const int digit = HexDigit(text[at]);
        if (shape[at] == '-' ? text[at] != '-' : digit < 0) return false;
        if (shape[at] == '-') continue;
        unsigned char &byte = raw[digits++ / 2];
        byte = static_cast<unsigned char>(byte << 4 | digit);
    }
    return true;
}

int GetSystemUuid(char value[KIF_SYSTEM_UUID_BYTES])
{
    int error;
    const auto text = HostInventory::ReadText({"kernel", "nodes", "system", "systemUuid"}, &error);
    if (!text) return error;
    unsigned char raw[16] = {};
    if (!ParseUuid(*text, raw)) return EINVAL;
    std::memset(value, 0, KIF_SYSTEM_UUID_BYTES);
    std::memcpy(value, raw, sizeof raw);
    std::memcpy(value + sizeof raw, text->data(), text->size());
    return 0;
}

int GetPageRetireThreshold(std::uint64_t *threshold)
{
    const Path path = {"kernel", "nodes", "system", "pageRetire", "threshold"};
    const int error = HostInventory::ReadUnsigned(path, UINT64_MAX, threshold);
    if (error != ENOENT) return error;
    *threshold = kPageRetireThreshold;
    return 0;
}

int Get(KifNode node, const KifParamList *instance, void *value, std::size_t size)
{
    switch (node) {
    case KIF_NODE_config_intOptions:
        return size == sizeof(KifIntOption) ? GetOption(instance, static_cast<KifIntOption *>(value))
                                            : EINVAL;
    case KIF_NODE_system_systemUuid:
        return size == KIF_SYSTEM_UUID_BYTES ? GetSystemUuid(static_cast<char *>(value)) : EINVAL;
    case KIF_NODE_system_pageRetire_threshold:
        return size == sizeof(std::uint64_t) ? GetPageRetireThreshold(static_cast<std::uint64_t *>(value))
                                             : EINVAL;
    default:
        return EINVAL;
    }
}

int SetOption(const KifParamList *instance, std::int64_t value)
{
    Path path;
    if (const int error = OptionPath(instance, &path); error != 0) return error;
    const int error = HostInventory::WriteText(path, std::to_string(value));
    if (error != 0)
        KltDiagnose("option %s/%s cannot be set: %s", path[2].c_str(), path[3].c_str(),
                    strerrordesc_np(error));
    return error;
}

int SetLinkFlapping(const KifParamList *instance, std::int64_t value)
{
    const std::string *nic = TextAt(instance, 0);
    if (nic == nullptr || instance->values.size() != 1 || value != 1) return EINVAL;
    Path path = {"kernel", "nodes", "net", "pNics", *nic};
    if (!HostInventory::IsDirectory(path)) return ENOENT;
    path.push_back("linkFlapping");
    return HostInventory::WriteText(path, "1");
}

int Set(KifNode node, const KifParamList *instance, const KifParamList *value)
{
    const std::int64_t *integer = OneInteger(value);
    if (integer == nullptr) return EINVAL;
    switch (node) {
    case KIF_NODE_config_intOptions:
        return SetOption(instance, *integer);
    case KIF_NODE_net_pNics_linkFlapping:
        return SetLinkFlapping(instance, *integer);
    default:
        return EINVAL;
    }
}

// The kernel status of a step that gives an errno value; no exception leaves the platform.
template <typename Step> KnxReturnStatus Guarded(Step step)
{
    try {
        return StatusOf(step());
    } catch (const std::bad_alloc &) {
        return KNX_NO_MEMORY;
    }
}

} // namespace

KifParamList *KIF_ParamListCreate(void) { return new (std::nothrow) KifParamList; }

KnxReturnStatus KIF_ParamListAddString(KifParamList *list, const char *text)
{
    if (list == nullptr || text == nullptr) return KNX_BAD_PARAM;
    return Guarded([=] {
        list->values.emplace_back(std::string(text));
        return 0;
    });
}

KnxReturnStatus KIF_ParamListAddInt(KifParamList *list, int64_t value)
{
    if (list == nullptr) return KNX_BAD_PARAM;
    return Guarded([=] {
        list->values.emplace_back(value);
        return 0;
    });
}

void KIF_ParamListDestroy(KifParamList *list) { delete list; }

KnxReturnStatus KIF_Get(KifNode node, const KifParamList *instance, void *value, size_t size)
{
    return Guarded([=] { return Get(node, instance, value, size); });
}

KnxReturnStatus KIF_Set(KifNode node, const KifParamList *instance, const KifParamList *value)
{
    return Guarded([=] { return Set(node, instance, value); });
}

int KIF_CheckSig(char kernelBuildDate[KIF_BUILD_DATE_BYTES], char ownBuildDate[KIF_BUILD_DATE_BYTES])
{
    static_assert(sizeof KELD_BUILD_DATE <= KIF_BUILD_DATE_BYTES, "a build date has up to 20 characters");
    Str_Strcpy(ownBuildDate, KELD_BUILD_DATE, KIF_BUILD_DATE_BYTES);
    const auto date = HostInventory::ReadText({"kernel", "builddate"});
    if (!date || Str_Strcpy(kernelBuildDate, date->c_str(), KIF_BUILD_DATE_BYTES) != 0)
        Str_Strcpy(kernelBuildDate, "unknown", KIF_BUILD_DATE_BYTES);
    int error;
    const auto signature = HostInventory::ReadText({"kernel", "signature"}, &error);
    // Without a usable run directory (EINVAL) there is none either; opening the channels says so.
    const bool matches = signature ? *signature == KELD_SIGNATURE : error == ENOENT || error == EINVAL;
    return matches ? 0 : -1;
}

int KNX_ReturnStatusToErrno(KnxReturnStatus status)
{
    const auto row = std::find_if(std::begin(kStatuses), std::end(kStatuses),
                                  [=](const StatusRow &r) { return r.status == status; });
    return row != std::end(kStatuses) ? row->error : EIO;
}

int KNX_StampEvent(void *record)
{
    timeval now;
    if (KTime_GetTimeOfDay(&now) != 0) return -1;
    const std::uint64_t microseconds =
        static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_usec);
    std::memcpy(record, &microseconds, sizeof microseconds);
    return 0;
}
