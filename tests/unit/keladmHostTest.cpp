// The host inventory's names, and what may stand behind them.

#include "hostEntries.h"
#include "keladmFailure.h"

#include <gtest/gtest.h>

namespace {

// A change as one text: "naa.6 = vSwitch0" sets, "kernel/nodes" removes.
HostChange Change(const std::string &text)
{
    const std::size_t mark = text.find(" = ");
    if (mark == text.npos) return MakeHostChange(HostVerb::Remove, text);
    return MakeHostChange(HostVerb::Set, text.substr(0, mark), text.substr(mark + 3));
}

} // namespace

TEST(KeladmHostTest, ValuesAreCheckedOnBothSidesOfTheirBounds)
{
    const std::string bounds = "storage/devices/naa.6/pathRedundancy = ", date = "kernel/builddate = ";
    const std::string uuid = "kernel/nodes/system/systemUuid = ", option = "kernel/options/Misc/Other = ";
    ExpectRefusals({{bounds + "3", "no failure"},
                    {bounds + "4", "an integer from 0 to 3"},
                    {date + "Jan  1 2024 00:00:00", "no failure"},
                    {date + "Jan  1 2024 00:00:00.", "up to 20 characters"},
                    {uuid + "01234567-89ab-cdef-0123-456789abcdef", "no failure"},
                    {uuid + "0123456789ab-cdef-0123-456789abcdef--", "a UUID such as"},
                    {option + "-9223372036854775808", "no failure"},
                    {option + "9223372036854775808", "64 bits"},
                    {"kernel/signature = xyz", "hexadecimal digits"},
                    {"vms/12/name = two\nlines", "one line of text"}},
                   Change);
}

TEST(KeladmHostTest, ANameThatMeansNothingIsAnsweredWithThoseThatDo)
{
    ExpectRefusals({{"storage/devices/naa.6/redundancy = 1", "storage/devices/<device>/pathRedundancy"},
                    {"storage/paths = naa.6", "a directory; it holds:\n  storage/paths/<path>"},
                    {"kernel/nodes/net/pNics/vmnic2 = 1", "host mkdir"},
                    {"net/portgroups/50%", "\"%\" is written %25"}},
                   Change);
    // No name leads out of the inventory.
    for (const char *name : {"", "/", "../kel", "storage/../../kel", "storage/", "/storage", "a//b", "."})
        ExpectRefusals({{name, "is no name"}}, Change);
}
