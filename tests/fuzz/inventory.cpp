// Names and numbers of the host inventory, as anybody with a shell might write them there.
//
// An input is a name, a newline and the value of the entry that it names.
#include "fuzz.h"

#include <algorithm>
#include <cerrno>
#include <failure.h>
#include <hostEntries.h>
#include <hostInventory.h>

namespace {

using HostInventory::EscapeName;
using HostInventory::UnescapeName;

// A "-" perhaps, and digits: what else strtoll would take is refused.
bool IsDecimal(std::string_view text, bool negativeAllowed)
{
    if (negativeAllowed && text.starts_with('-')) text.remove_prefix(1);
    return !text.empty() && text.find_first_not_of("0123456789") == text.npos;
}

template <class Integer>
void CheckNumber(const std::string &text, Integer low, Integer high, Integer expected, int status,
                 Integer read)
{
    const bool overflow = errno == ERANGE;
    if (!IsDecimal(text, std::is_signed_v<Integer>))
        FUZZ_CHECK(status == EINVAL);
    else if (overflow || expected < low || expected > high)
        FUZZ_CHECK(status == ERANGE);
    else
        FUZZ_CHECK(status == 0 && read == expected);
}

void CheckNumbers(const std::string &text)
{
    for (const std::int64_t high : {INT64_MAX, std::int64_t{100}}) {
        std::int64_t read = 0;
        const int status = HostInventory::ParseInteger(text, -high, high, &read);
        errno = 0;
        const std::int64_t expected = std::strtoll(text.c_str(), nullptr, 10);
        CheckNumber(text, -high, high, expected, status, read);
    }
    for (const std::uint64_t high : {UINT64_MAX, std::uint64_t{3}}) {
        std::uint64_t read = 0;
        const int status = HostInventory::ParseUnsigned(text, high, &read);
        errno = 0;
        const std::uint64_t expected = std::strtoull(text.c_str(), nullptr, 10);
        CheckNumber(text, std::uint64_t{0}, high, expected, status, read);
    }
}

void CheckName(const std::string &name)
{
    const std::string escaped = EscapeName(name);
    FUZZ_CHECK(escaped.find('/') == escaped.npos && UnescapeName(escaped) == name);
    const auto plain = UnescapeName(name);
    if (plain && name.find('/') == name.npos) FUZZ_CHECK(EscapeName(*plain) == name);
}

void CheckEntry(const std::string &name, const std::string &value)
{
    HostInventory::Path path;
    try {
        path = ParseHostName(name);
    } catch (const Failure &failure) {
        FUZZ_CHECK(failure.status == kExitUsage);
        return;
    }
    FUZZ_CHECK(HostName(path) == name);
    const HostEntry *entry = FindHostEntry(path);
    try {
        const HostChange change = MakeHostChange(HostVerb::Set, name, value);
        FUZZ_CHECK(change.path == path && change.value == value);
        FUZZ_CHECK(entry != nullptr && !CheckHostValue(*entry, value));
    } catch (const Failure &failure) {
        FUZZ_CHECK(failure.status == kExitUsage && *failure.what() != '\0');
        FUZZ_CHECK(entry == nullptr || CheckHostValue(*entry, value));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    std::string_view rest = AsText(data, size);
    std::string_view line = rest.substr(0, rest.find('\n'));
    rest.remove_prefix(std::min(line.size() + 1, rest.size()));
    const std::string name = TakeUntil(&line, '\0'); // neither a command line nor a scenario can hold one
    const std::string value(rest);
    CheckName(name);
    CheckNumbers(value.substr(0, value.find('\0')));
    CheckEntry(name, value);
    return 0;
}
