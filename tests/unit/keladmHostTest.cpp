// The host inventory's names, and what may stand behind them.

#include "failure.h"
#include "hostEntries.h"
#include "runDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::HasSubstr;

namespace {

std::string FailureOf(HostVerb verb, const std::string &name, const std::string &value = "")
{
    try {
        MakeHostChange(verb, name, value);
    } catch (const Failure &failure) {
        return failure.what();
    }
    return "no failure";
}

std::string Set(const std::string &name, const std::string &value)
{
    return FailureOf(HostVerb::Set, name, value);
}

} // namespace

TEST(KeladmHostTest, AChangeReachesTheFileThatTheDaemonReads)
{
    RunDir run;
    ApplyHostChange(MakeHostChange(HostVerb::Set, "storage/paths/hba1:C0:T0:L4", "naa.60003ff44dc75adc"));
    ApplyHostChange(MakeHostChange(HostVerb::Set, "net/portgroups/VM%2FNet 10%25", "vSwitch0"));
    ApplyHostChange(MakeHostChange(HostVerb::MakeDirectory, "kernel/nodes/net/pNics/vmnic2"));
    EXPECT_EQ("naa.60003ff44dc75adc", run.HostText("storage/paths/hba1:C0:T0:L4"));
    EXPECT_EQ("vSwitch0", run.HostText("net/portgroups/VM%2FNet 10%25"));
    EXPECT_TRUE(HostInventory::IsDirectory({"kernel", "nodes", "net", "pNics", "vmnic2"}));

    ApplyHostChange(MakeHostChange(HostVerb::Remove, "storage"));
    EXPECT_EQ(std::nullopt, run.HostText("storage/paths/hba1:C0:T0:L4"));
    EXPECT_THROW(ApplyHostChange(MakeHostChange(HostVerb::Remove, "storage")), Failure);
}

TEST(KeladmHostTest, ValuesAreCheckedOnBothSidesOfTheirBounds)
{
    EXPECT_EQ("no failure", Set("storage/devices/naa.6/pathRedundancy", "3"));
    EXPECT_THAT(Set("storage/devices/naa.6/pathRedundancy", "4"), HasSubstr("an integer from 0 to 3"));
    EXPECT_THAT(Set("storage/devices/naa.6/pathRedundancy", ""), HasSubstr("an integer from 0 to 3"));
    EXPECT_EQ("no failure", Set("kernel/builddate", "Jan  1 2024 00:00:00"));
    EXPECT_THAT(Set("kernel/builddate", "Jan  1 2024 00:00:00."), HasSubstr("up to 20 characters"));
    EXPECT_EQ("no failure", Set("kernel/nodes/system/systemUuid", "01234567-89ab-cdef-0123-456789abcdef"));
    EXPECT_THAT(Set("kernel/nodes/system/systemUuid", "0123456789ab-cdef-0123-456789abcdef--"),
                HasSubstr("a UUID such as"));
    EXPECT_EQ("no failure", Set("kernel/options/Misc/Other", "-9223372036854775808"));
    EXPECT_THAT(Set("kernel/options/Misc/Other", "9223372036854775808"), HasSubstr("64 bits"));
    EXPECT_EQ("no failure", Set("kernel/nodes/system/pageRetire/threshold", "18446744073709551615"));
    EXPECT_THAT(Set("kernel/signature", "xyz"), HasSubstr("hexadecimal digits"));
    EXPECT_THAT(Set("vms/12/name", "two\nlines"), HasSubstr("one line of text"));
}

TEST(KeladmHostTest, ANameThatMeansNothingIsAnsweredWithThoseThatDo)
{
    EXPECT_THAT(Set("storage/devices/naa.6/redundancy", "1"),
                HasSubstr("storage/devices/<device>/pathRedundancy"));
    EXPECT_THAT(Set("vms/web01/name", "web01"), HasSubstr("vms/<world id>/name"));
    EXPECT_THAT(Set("storage/paths", "naa.6"), HasSubstr("a directory; it holds:\n  storage/paths/<path>"));
    EXPECT_THAT(Set("kernel/nodes/net/pNics/vmnic2", "1"), HasSubstr("host mkdir"));
    EXPECT_THAT(FailureOf(HostVerb::MakeDirectory, "net/portgroups/Production"), HasSubstr("host set"));
    EXPECT_EQ("no failure", FailureOf(HostVerb::MakeDirectory, "storage/filesystems/1"));
}

TEST(KeladmHostTest, NoNameLeadsOutOfTheInventory)
{
    for (const char *name :
         {"", "/", "..", "../kel", "storage/../../kel", "storage/", "/storage", "a//b", "."})
        EXPECT_THAT(FailureOf(HostVerb::Remove, name), HasSubstr("is no name")) << name;
    EXPECT_THAT(FailureOf(HostVerb::Remove, "net/portgroups/50%"), HasSubstr("\"%\" is written %25"));
}

TEST(KeladmHostTest, EveryPatternIsReachableThroughAnExampleOfItself)
{
    for (const HostEntry &entry : HostEntries()) {
        HostInventory::Path path = ParseHostName(entry.pattern);
        for (std::string &part : path)
            if (part == "<number>" || part == "<world id>") part.assign(1, '1');
        EXPECT_EQ(&entry, FindHostEntry(path)) << entry.pattern;
    }
}
