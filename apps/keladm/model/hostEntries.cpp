#include "hostEntries.h"

#include "failure.h"
#include "text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <limits>

namespace {

constexpr std::uint64_t kAny = std::numeric_limits<std::uint64_t>::max();

// Sorted as the inventory lies on disk. Of two rows that match, the first holds.
// clang-format off
constexpr HostEntry kHostEntries[] = {
    {"kernel/signature",                              HostValue::Hex,       kAny, "the running kernel's build signature; absent: the daemon's own"},
    {"kernel/builddate",                              HostValue::Text,      20,   "the running kernel's build date; absent: unknown"},
    {"kernel/options/Misc/KelAsyncEnable",            HostValue::Unsigned,  1,    "asynchronous observations; absent: 0; keld -e sets it"},
    {"kernel/options/Net/LinkFlappingThreshold",      HostValue::Unsigned,  0xFFFFFFFF, "link losses a minute that take a NIC down, 0 for never; absent: 60"},
    {"kernel/options/PageRetire/ThresholdInterval",   HostValue::Unsigned,  100,  "percent of the threshold between two events; absent: 10"},
    {"kernel/options/PageRetire/ApeiLoggingEnabled",  HostValue::Unsigned,  1,    "events for the platform's page retirement requests; absent: 1"},
    {"kernel/options/<group>/<name>",                 HostValue::Signed,    0,    "an advanced option"},
    {"kernel/nodes/system/systemUuid",                HostValue::Uuid,      36,   "the host's identity in event records"},
    {"kernel/nodes/system/pageRetire/threshold",      HostValue::Unsigned,  kAny, "retired pages that are too many; absent: 1000"},
    {"kernel/nodes/net/pNics/<nic>",                  HostValue::Directory, 0,    "a physical NIC"},
    {"kernel/nodes/net/pNics/<nic>/linkFlapping",     HostValue::Unsigned,  1,    "written by the daemon: this NIC's link was flapping"},
    {"net/portgroups/<port group>",                   HostValue::Text,      kAny, "a port group's virtual switch"},
    {"storage/paths/<path>",                          HostValue::Text,      kAny, "a path's device"},
    {"storage/devices/<device>/pathRedundancy",       HostValue::Unsigned,  3,    "a device's path redundancy"},
    {"storage/devices/<device>/partitions",           HostValue::Directory, 0,    "makes the device a disk"},
    {"storage/devices/<device>/partitions/<number>",  HostValue::Text,      kAny, "the datastore on a partition"},
    {"storage/filesystems/<any>/name",                HostValue::Text,      kAny, "a mounted file system's name; absent: asking for it fails"},
    {"storage/filesystems/<any>/uuid",                HostValue::Text,      kAny, "a mounted file system's UUID; absent: asking for it fails"},
    {"vms/<world id>/name",                           HostValue::Text,      kAny, "a virtual machine's name"},
    {"vms/<world id>/terminated",                     HostValue::Unsigned,  1,    "written by the daemon: told the virtual machine to stop"},
    {"swap/failure",                                  HostValue::Text,      kAny, "makes swap reconfiguration fail, with this message"},
    {"swap/reconfigured",                             HostValue::Unsigned,  kAny, "written by the daemon: how often swap was reconfigured"},
};
// clang-format on

// The parts of a pattern, which holds no escapes.
std::vector<std::string_view> PatternParts(std::string_view pattern)
{
    std::vector<std::string_view> parts;
    for (size_t end = 0; end != std::string_view::npos;) {
        end = pattern.find('/');
        parts.push_back(pattern.substr(0, end));
        if (end != std::string_view::npos) pattern.remove_prefix(end + 1);
    }
    return parts;
}

bool PartMatches(std::string_view pattern, const std::string &part)
{
    std::uint64_t number = 0;
    if (pattern == "<number>" || pattern == "<world id>")
        return HostInventory::ParseUnsigned(part, kAny, &number) == 0;
    return pattern.starts_with('<') || pattern == part;
}

// How many parts of path the pattern follows.
size_t PartsMatched(const std::vector<std::string_view> &pattern, const HostInventory::Path &path)
{
    size_t count = 0;
    while (count < pattern.size() && count < path.size() && PartMatches(pattern[count], path[count]))
        count++;
    return count;
}

// The patterns that come nearest to a name that is none.
std::string Nearest(const HostInventory::Path &path)
{
    size_t most = 0;
    for (const HostEntry &entry : kHostEntries)
        most = std::max(most, PartsMatched(PatternParts(entry.pattern), path));
    if (most == 0) return " \"keladm host --help\" lists them";
    std::string list;
    for (const HostEntry &entry : kHostEntries)
        if (PartsMatched(PatternParts(entry.pattern), path) == most)
            list += fmt::format("\n  {}", entry.pattern);
    return list;
}

bool IsHex(std::string_view text)
{
    return text.find_first_not_of("0123456789abcdefABCDEF") == std::string_view::npos;
}

bool IsUuid(std::string_view text)
{
    if (text.size() != 36) return false;
    for (size_t i = 0; i < text.size(); i++) {
        bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? text[i] != '-' : !IsHex(text.substr(i, 1))) return false;
    }
    return true;
}

} // namespace

std::span<const HostEntry> HostEntries() { return kHostEntries; }

HostInventory::Path ParseHostName(std::string_view name)
{
    HostInventory::Path path;
    for (std::string_view part : PatternParts(name)) {
        auto unescaped = HostInventory::UnescapeName(part);
        if (!unescaped)
            throw Failure(kExitUsage, fmt::format("{}: in {}, a \"%\" is written %25 and a \"/\" %2F", name,
                                                  Quoted(part)));
        if (unescaped->empty() || *unescaped == "." || *unescaped == "..")
            throw Failure(kExitUsage,
                          fmt::format("{}: {} is no name; write it like storage/paths/hba1:C0:T0:L4",
                                      Quoted(name), Quoted(part)));
        path.push_back(std::move(*unescaped));
    }
    return path;
}

std::string HostName(const HostInventory::Path &path)
{
    std::string name;
    for (const std::string &part : path) {
        if (!name.empty()) name += '/';
        name += HostInventory::EscapeName(part);
    }
    return name;
}

const HostEntry *FindHostEntry(const HostInventory::Path &path)
{
    auto found = std::ranges::find_if(kHostEntries, [&](const HostEntry &entry) {
        auto parts = PatternParts(entry.pattern);
        return parts.size() == path.size() && PartsMatched(parts, path) == path.size();
    });
    return found == std::end(kHostEntries) ? nullptr : found;
}

bool IsWrittenByDaemon(const HostInventory::Path &path)
{
    const HostEntry *entry = FindHostEntry(path);
    return entry != nullptr && entry->meaning.starts_with("written by the daemon");
}

bool IsInnerHostDirectory(const HostInventory::Path &path)
{
    return std::ranges::any_of(kHostEntries, [&](const HostEntry &entry) {
        auto parts = PatternParts(entry.pattern);
        return parts.size() > path.size() && PartsMatched(parts, path) == path.size();
    });
}

const HostEntry &KnownHostEntry(const HostInventory::Path &path)
{
    if (const HostEntry *entry = FindHostEntry(path)) return *entry;
    if (IsInnerHostDirectory(path))
        throw Failure(kExitUsage,
                      fmt::format("{}: a directory; it holds:{}", HostName(path), Nearest(path)));
    throw Failure(kExitUsage,
                  fmt::format("{}: not an entry that the daemon knows:{}", HostName(path), Nearest(path)));
}

std::string WhatIsRight(const HostEntry &entry)
{
    switch (entry.value) {
    case HostValue::Text:
        return entry.high == kAny ? "one line of text" : fmt::format("up to {} characters", entry.high);
    case HostValue::Hex:
        return "hexadecimal digits";
    case HostValue::Uuid:
        return "a UUID such as 01234567-89ab-cdef-0123-456789abcdef";
    case HostValue::Signed:
        return "a decimal integer of 64 bits";
    case HostValue::Unsigned:
        return fmt::format("an integer from 0 to {}", entry.high);
    case HostValue::Directory:
        return "a directory";
    }
    return "";
}

std::optional<std::string> CheckHostValue(const HostEntry &entry, std::string_view value)
{
    bool right = false;
    std::int64_t number = 0;
    std::uint64_t magnitude = 0;
    switch (entry.value) {
    case HostValue::Text:
        right = value.size() <= entry.high && value.find_first_of("\n\r") == std::string_view::npos;
        break;
    case HostValue::Hex:
        right = !value.empty() && IsHex(value);
        break;
    case HostValue::Uuid:
        right = IsUuid(value);
        break;
    case HostValue::Signed:
        right = HostInventory::ParseInteger(value, INT64_MIN, INT64_MAX, &number) == 0;
        break;
    case HostValue::Unsigned:
        right = HostInventory::ParseUnsigned(value, entry.high, &magnitude) == 0;
        break;
    case HostValue::Directory:
        break;
    }
    if (right) return std::nullopt;
    return fmt::format("{} is not {}", Quoted(value), WhatIsRight(entry));
}

HostChange MakeHostChange(HostVerb verb, std::string_view name, const std::string &value)
{
    HostChange change{verb, ParseHostName(name), value};
    if (verb == HostVerb::Set) {
        const HostEntry &entry = KnownHostEntry(change.path);
        if (entry.value == HostValue::Directory)
            throw Failure(kExitUsage, fmt::format("{}: a directory; make it with \"host mkdir\"", name));
        if (auto wrong = CheckHostValue(entry, value))
            throw Failure(kExitUsage, fmt::format("{}: {}", name, *wrong));
    }
    if (verb == HostVerb::MakeDirectory) {
        const HostEntry *entry = FindHostEntry(change.path);
        bool directory =
            entry == nullptr ? IsInnerHostDirectory(change.path) : entry->value == HostValue::Directory;
        if (!directory && entry != nullptr)
            throw Failure(kExitUsage, fmt::format("{}: not a directory, but {}; use \"host set\"", name,
                                                  WhatIsRight(*entry)));
        if (!directory) KnownHostEntry(change.path);
    }
    return change;
}

void ApplyHostChange(const HostChange &change)
{
    int error = 0;
    switch (change.verb) {
    case HostVerb::Set:
        error = HostInventory::WriteText(change.path, change.value);
        break;
    case HostVerb::MakeDirectory:
        error = HostInventory::MakeDirectory(change.path);
        break;
    case HostVerb::Remove:
        error = HostInventory::Remove(change.path);
        break;
    }
    if (error != 0) throw HostFailure(change.path, error);
}

std::vector<HostInventory::Path> HostEntriesBelow(const HostInventory::Path &directory)
{
    int error = 0;
    std::vector<HostInventory::Path> all;
    auto names = HostInventory::List(directory, &error);
    if (error != 0) throw HostFailure(directory, error);
    for (std::string &name : names) {
        auto below = directory;
        below.push_back(std::move(name));
        if (!HostInventory::IsDirectory(below)) {
            all.push_back(std::move(below));
            continue;
        }
        auto inside = HostEntriesBelow(below);
        if (inside.empty()) all.push_back(std::move(below));
        std::ranges::move(inside, std::back_inserter(all));
    }
    return all;
}

Failure HostFailure(const HostInventory::Path &path, int error)
{
    return Failure(kExitFailed, fmt::format("{}: {}", HostName(path),
                                            error == ENOENT ? "absent" : std::strerror(error)));
}
