// Names and numbers of the host inventory, as anybody with a shell might write them there.
//
// An input is a name, a newline and the value of the entry that it names.
#include "fuzz.h"

#include <failure.h>
#include <hostEntries.h>
#include <hostInventory.h>

namespace {

using HostInventory::EscapeName;
using HostInventory::UnescapeName;

void CheckEntry(const std::string &name, const std::string &value)
{
    const HostEntry *entry = nullptr;
    try {
        const HostInventory::Path path = ParseHostName(name);
        FUZZ_CHECK(HostName(path) == name);
        entry = FindHostEntry(path);
        const HostChange change = MakeHostChange(HostVerb::Set, name, value);
        FUZZ_CHECK(change.path == path && change.value == value);
        FUZZ_CHECK(entry != nullptr && !CheckHostValue(*entry, value));
    } catch (const Failure &failure) {
        FUZZ_CHECK(failure.status == kExitUsage && *failure.what() != '\0');
        FUZZ_CHECK(entry == nullptr || CheckHostValue(*entry, value));
    }
}

} // namespace

void Fuzz(std::string_view input)
{
    const std::string line = TakeUntil(&input, '\n'), value(input);
    const std::string name = line.c_str(); // neither a command line nor a scenario can hold a NUL
    const std::string escaped = EscapeName(name);
    FUZZ_CHECK(escaped.find('/') == escaped.npos && UnescapeName(escaped) == name);
    const auto plain = UnescapeName(name);
    if (plain && name.find('/') == name.npos) FUZZ_CHECK(EscapeName(*plain) == name);
    CheckEntry(name, value);
}
