// The host: its inventory of small files, and the kernel's nodes and options in it.
#include "runDir.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <hostInventory.h>
#include <kltlibs/kif.h>
#include <kltlibs/rundir.h>
#include <memory>

namespace {

using HostInventory::Path;
using namespace std::string_literals;
using Names = std::vector<std::string>;
using ParamList = std::unique_ptr<KifParamList, void (*)(KifParamList *)>;

ParamList Texts(std::initializer_list<const char *> texts)
{
    ParamList list(KIF_ParamListCreate(), KIF_ParamListDestroy);
    for (const char *text : texts)
        EXPECT_EQ(KnxReturnStatus{KNX_OK}, KIF_ParamListAddString(list.get(), text));
    return list;
}

class HostTest : public testing::Test {
protected:
    // As a shell writes it: neither escaped nor renamed.
    void Write(const std::string &entry, const std::string &text)
    {
        const std::filesystem::path path = mRunDir.Path("host/" + entry);
        std::filesystem::create_directories(path.parent_path());
        std::ofstream(path) << text;
    }

    // What a node or an option reads as: "5", or the errno value as "E2".
    template <class Value>
    static std::string Get(KifNode node, std::initializer_list<const char *> instance = {})
    {
        Value value{};
        const int error =
            KNX_ReturnStatusToErrno(KIF_Get(node, Texts(instance).get(), &value, sizeof value));
        if (error != 0) return "E" + std::to_string(error);
        if constexpr (std::is_same_v<Value, KifIntOption>)
            return std::to_string(value.current);
        else
            return std::to_string(value);
    }
    static std::string Option(const char *group, const char *name)
    {
        return Get<KifIntOption>(KIF_NODE_config_intOptions, {group, name});
    }

    RunDir mRunDir;
};

TEST_F(HostTest, OneTrailingNewlineIsIgnored)
{
    const std::string large(10000, 'x');
    for (const auto &[written, read] :
         {std::pair("naa.1\n\n"s, "naa.1\n"s), {"naa.1", "naa.1"}, {"\n", ""}, {large + "\n", large}}) {
        Write("text", written);
        EXPECT_EQ(read, HostInventory::ReadText({"text"}));
    }
}

TEST_F(HostTest, AnAbsentEntryIsToldFromOneThatCannotBeRead)
{
    const auto errorOf = [](const Path &path) {
        int error = -1;
        EXPECT_EQ(std::nullopt, HostInventory::ReadText(path, &error));
        return error;
    };
    Write("storage/file", "x");
    EXPECT_EQ(ENOENT, errorOf({"storage", "paths", "hba1:C0:T0:L4"}));
    EXPECT_EQ(ENOENT, errorOf({"storage", "file", "below"})) << "a file has nothing below it";
    EXPECT_EQ(ENOENT, errorOf({"storage", std::string(300, 'x')})) << "no name is so long";
    EXPECT_EQ(EISDIR, errorOf({"storage"}));
    for (const std::string &part : {""s, "."s, ".."s, "a\0b"s})
        EXPECT_EQ(EINVAL, errorOf({"storage", part, "file"})) << "it would lead elsewhere";
}

TEST_F(HostTest, NamesComeBackAsTheyWereInByteOrder)
{
    const std::string odd = "a/b%2F%c";
    EXPECT_EQ(0, HostInventory::WriteText({"nics", odd}, "vSwitch0"));
    EXPECT_EQ("vSwitch0", mRunDir.HostText("nics/a%2Fb%252F%25c"));
    for (const char *name : {"vmnic2", "Vmnic", "vmnic10", ".hidden"})
        Write(std::string("nics/") + name, "");
    for (const char *bad : {"%", "%2", "%2f", "%41", "a%", "%new-aBcDeF"})
        Write(std::string("nics/") + bad, "of no entry, or still being written");
    EXPECT_EQ((Names{".hidden", "Vmnic", odd, "vmnic10", "vmnic2"}), HostInventory::List({"nics"}));
    EXPECT_EQ(Names{}, HostInventory::List({"nothing"}));
}

TEST_F(HostTest, WritingReplacesAndRemovingIsThorough)
{
    EXPECT_EQ(0, HostInventory::WriteText({"vms", "4711", "name"}, "db01"));
    EXPECT_EQ(0, HostInventory::WriteText({"vms", "4711", "name"}, "db02"));
    EXPECT_EQ("db02", HostInventory::ReadText({"vms", "4711", "name"}));
    EXPECT_NE(0, HostInventory::WriteText({"vms", "4711"}, "a directory")) << "and leaves nothing behind";
    EXPECT_EQ(Names{"4711"}, HostInventory::List({"vms"}));
    EXPECT_EQ(Names{"name"}, HostInventory::List({"vms", "4711"}));
    EXPECT_EQ(0, HostInventory::Remove({"vms"}));
    EXPECT_EQ(ENOENT, HostInventory::Remove({"vms"}));
    EXPECT_FALSE(HostInventory::IsDirectory({"vms"}));
}

TEST_F(HostTest, AnIntegerIsDecimalAndNothingElse)
{
    std::int64_t value = 0;
    std::uint64_t natural = 0;
    for (const auto &[text, error] : {std::pair("-100", 0),
                                      {"-101", ERANGE},
                                      {"9223372036854775807", 0},
                                      {"9223372036854775808", ERANGE},
                                      {"", EINVAL},
                                      {" 60", EINVAL},
                                      {"60 ", EINVAL},
                                      {"+60", EINVAL},
                                      {"0x10", EINVAL},
                                      {"-", EINVAL}})
        EXPECT_EQ(error, HostInventory::ParseInteger(text, -100, INT64_MAX, &value)) << text;
    EXPECT_EQ(INT64_MAX, value);
    EXPECT_EQ(EINVAL, HostInventory::ParseUnsigned("-1", UINT64_MAX, &natural));
    EXPECT_EQ(ERANGE, HostInventory::ParseUnsigned("4", 3, &natural));
}

TEST_F(HostTest, WhatTheHostDoesNotSayHasADefault)
{
    EXPECT_EQ("0", Option("Misc", "KelAsyncEnable"));
    EXPECT_EQ("60", Option("Net", "LinkFlappingThreshold"));
    EXPECT_EQ("10", Option("PageRetire", "ThresholdInterval"));
    EXPECT_EQ("1", Option("PageRetire", "ApeiLoggingEnabled"));
    EXPECT_EQ("E2", Option("Net", "Unknown"));
    Write("kernel/options/Net/LinkFlappingThreshold", "five");
    EXPECT_EQ("E22", Option("Net", "LinkFlappingThreshold"));

    EXPECT_EQ("1000", Get<std::uint64_t>(KIF_NODE_system_pageRetire_threshold));
    Write("kernel/nodes/system/pageRetire/threshold", "18446744073709551615");
    EXPECT_EQ("18446744073709551615", Get<std::uint64_t>(KIF_NODE_system_pageRetire_threshold));
    Write("kernel/nodes/system/pageRetire/threshold", "-1");
    EXPECT_EQ("E22", Get<std::uint64_t>(KIF_NODE_system_pageRetire_threshold));
}

TEST_F(HostTest, TheSystemUuidIsBytesThenText)
{
    char uuid[KIF_SYSTEM_UUID_BYTES];
    const auto get = [&] {
        return KNX_ReturnStatusToErrno(KIF_Get(KIF_NODE_system_systemUuid, nullptr, uuid, sizeof uuid));
    };
    EXPECT_EQ(ENOENT, get());
    Write("kernel/nodes/system/systemUuid", "4c4c4544-0042-3510-8054-B4C04F564433\n");
    ASSERT_EQ(0, get());
    EXPECT_EQ("\x4c\x4c\x45\x44\x00\x42\x35\x10\x80\x54\xb4\xc0\x4f\x56\x44\x33"
              "4c4c4544-0042-3510-8054-B4C04F564433\0\0\0\0"s,
              std::string(uuid, sizeof uuid));
    for (const char *text : {"4c4c4544-0042-3510-8054-b4c04f56443", "4c4c4544-0042-3510-8054-b4c04f56443g",
                             "4c4c454400-42-3510-8054-b4c04f564433"}) {
        Write("kernel/nodes/system/systemUuid", text);
        EXPECT_EQ(EINVAL, get()) << text;
    }
}

TEST_F(HostTest, TheSignatureMatchesWhenAbsentOrEqual)
{
    char kernel[KIF_BUILD_DATE_BYTES], own[KIF_BUILD_DATE_BYTES];
    EXPECT_EQ(0, KIF_CheckSig(kernel, own));
    Write("kernel/signature", "0f1e2d3c4b5a69788796a5b4c3d2e1f0\n");
    EXPECT_EQ(0, KIF_CheckSig(kernel, own));
    Write("kernel/signature", "0f1e2d3c4b5a69788796a5b4c3d2e1f1\n");
    Write("kernel/builddate", "one character too far");
    EXPECT_NE(0, KIF_CheckSig(kernel, own));
    EXPECT_STREQ("unknown", kernel);
}

TEST_F(HostTest, TheRunDirectoryIsAbsoluteAndAtMost80Bytes)
{
    char path[KLT_RUN_PATH_BYTES];
    const std::string longest = "/" + std::string(79, 'r');
    setenv("KALTOR_RUN_DIR", longest.c_str(), 1);
    EXPECT_EQ(0, KltRunDir_Path("kel/async-21.sock", path, sizeof path));
    EXPECT_EQ(longest + "/kel/async-21.sock", path);
    EXPECT_EQ(0, KltRunDir_Path("", path, longest.size() + 1));
    EXPECT_EQ(ENAMETOOLONG, KltRunDir_Path("", path, longest.size()));
    for (const std::string &wrong : {longest + "r", "run"s}) {
        setenv("KALTOR_RUN_DIR", wrong.c_str(), 1);
        EXPECT_EQ(EINVAL, KltRunDir_Path("", path, sizeof path));
    }
    unsetenv("KALTOR_RUN_DIR");
    EXPECT_EQ(0, KltRunDir_Path("kel", path, sizeof path));
    EXPECT_STREQ("/var/run/kaltor/kel", path);
}

} // namespace
