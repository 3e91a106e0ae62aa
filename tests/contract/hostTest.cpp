// The host: its inventory of small files, and the kernel's nodes and options in it.
#include "handClock.h"
#include "runDir.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <hostInventory.h>
#include <kltlibs/kif.h>
#include <kltlibs/kthread.h>
#include <kltlibs/rundir.h>
#include <kltlibs/str.h>
#include <memory>
#include <sys/stat.h>
#include <thread>

namespace {

using HostInventory::Path;
using namespace std::string_literals;
using ParamList = std::unique_ptr<KifParamList, void (*)(KifParamList *)>;

ParamList Texts(std::initializer_list<const char *> texts)
{
    ParamList list(KIF_ParamListCreate(), KIF_ParamListDestroy);
    for (const char *text : texts)
        EXPECT_EQ(KnxReturnStatus{KNX_OK}, KIF_ParamListAddString(list.get(), text));
    return list;
}

ParamList Integer(std::int64_t value)
{
    ParamList list(KIF_ParamListCreate(), KIF_ParamListDestroy);
    EXPECT_EQ(KnxReturnStatus{KNX_OK}, KIF_ParamListAddInt(list.get(), value));
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

    // "5", or the errno value as "E2".
    std::string Integer64(const std::string &text)
    {
        Write("number", text);
        std::int64_t value;
        const int error = HostInventory::ReadInteger({"number"}, -100, INT64_MAX, &value);
        return error == 0 ? std::to_string(value) : "E" + std::to_string(error);
    }

    std::string Option(const char *group, const char *name)
    {
        KifIntOption option{};
        const KnxReturnStatus status =
            KIF_Get(KIF_NODE_config_intOptions, Texts({group, name}).get(), &option, sizeof option);
        return status == KNX_OK ? std::to_string(option.current)
                                : "E" + std::to_string(KNX_ReturnStatusToErrno(status));
    }

    KnxReturnStatus GetUuid() { return KIF_Get(KIF_NODE_system_systemUuid, nullptr, mUuid, sizeof mUuid); }

    std::string CheckSig()
    {
        char kernel[KIF_BUILD_DATE_BYTES], own[KIF_BUILD_DATE_BYTES];
        const int result = KIF_CheckSig(kernel, own);
        EXPECT_STRNE("", own);
        return std::string(result == 0 ? "matches " : "differs ") + kernel;
    }

    RunDir mRunDir;
    char mUuid[KIF_SYSTEM_UUID_BYTES];
};

} // namespace

TEST_F(HostTest, OneTrailingNewlineIsIgnored)
{
    Write("text", "naa.1\n\n");
    EXPECT_EQ("naa.1\n", HostInventory::ReadText({"text"}));
    Write("text", "naa.1");
    EXPECT_EQ("naa.1", HostInventory::ReadText({"text"}));
    Write("text", "\n");
    EXPECT_EQ("", HostInventory::ReadText({"text"}));
    const std::string large(10000, 'x');
    Write("text", large + "\n");
    EXPECT_EQ(large, HostInventory::ReadText({"text"}));
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
        EXPECT_EQ(EINVAL, errorOf({"storage", part, "file"}))
            << "a part is one name and leads nowhere else";
}

TEST_F(HostTest, NamesComeBackAsTheyWere)
{
    const std::string odd = "a/b%2F%c";
    EXPECT_EQ("a%2Fb%252F%25c", HostInventory::EscapeName(odd));
    EXPECT_EQ(odd, HostInventory::UnescapeName("a%2Fb%252F%25c"));
    for (const char *bad : {"%", "%2", "%2f", "%41", "a%"})
        EXPECT_EQ(std::nullopt, HostInventory::UnescapeName(bad)) << bad;
    EXPECT_EQ(0, HostInventory::WriteText({"net", odd}, "vSwitch0"));
    EXPECT_EQ("vSwitch0\n", mRunDir.HostText("net/a%2Fb%252F%25c").value() + "\n");
    EXPECT_EQ(std::vector<std::string>{odd}, HostInventory::List({"net"}));
}

TEST_F(HostTest, ListsNamesInByteOrder)
{
    for (const char *name : {"vmnic2", "Vmnic", "vmnic10", ".hidden"})
        Write(std::string("nics/") + name, "");
    Write("nics/%new-aBcDeF", "still being written");
    EXPECT_EQ((std::vector<std::string>{".hidden", "Vmnic", "vmnic10", "vmnic2"}),
              HostInventory::List({"nics"}));
    EXPECT_TRUE(HostInventory::List({"nothing"}).empty());
}

TEST_F(HostTest, WritingReplacesAndRemovingIsThorough)
{
    EXPECT_EQ(0, HostInventory::WriteText({"vms", "4711", "name"}, "db01"));
    EXPECT_EQ(0, HostInventory::WriteText({"vms", "4711", "name"}, "db02"));
    EXPECT_EQ("db02", HostInventory::ReadText({"vms", "4711", "name"}));
    EXPECT_EQ(std::vector<std::string>{"name"}, HostInventory::List({"vms", "4711"}));
    EXPECT_NE(0, HostInventory::WriteText({"vms", "4711"}, "a directory")) << "and leaves nothing behind";
    EXPECT_EQ(std::vector<std::string>{"4711"}, HostInventory::List({"vms"}));
    EXPECT_EQ(0, HostInventory::MakeDirectory({"vms", "1", "2"}));
    EXPECT_TRUE(HostInventory::IsDirectory({"vms", "1", "2"}));
    EXPECT_EQ(0, HostInventory::Remove({"vms"}));
    EXPECT_EQ(ENOENT, HostInventory::Remove({"vms"}));
    EXPECT_FALSE(HostInventory::IsDirectory({"vms"}));
}

TEST_F(HostTest, AnIntegerIsDecimalAndNothingElse)
{
    EXPECT_EQ("60", Integer64("60\n"));
    EXPECT_EQ("-100", Integer64("-100"));
    EXPECT_EQ("E34", Integer64("-101"));
    EXPECT_EQ("9223372036854775807", Integer64("9223372036854775807"));
    EXPECT_EQ("E34", Integer64("9223372036854775808"));
    for (const char *text :
         {"", "\n", " 60", "60 ", "+60", "0x10", "60\n\n", "6o", "-", "99999999999999999999x"})
        EXPECT_EQ("E22", Integer64(text)) << text;
    std::uint64_t value;
    EXPECT_EQ(0, HostInventory::ParseUnsigned("18446744073709551615", UINT64_MAX, &value));
    EXPECT_EQ(UINT64_MAX, value);
    EXPECT_EQ(EINVAL, HostInventory::ParseUnsigned("-1", UINT64_MAX, &value));
    EXPECT_EQ(ERANGE, HostInventory::ParseUnsigned("4", 3, &value));
}

TEST_F(HostTest, OptionsHaveDefaultsAndAreReadAfresh)
{
    EXPECT_EQ("0", Option("Misc", "KelAsyncEnable"));
    EXPECT_EQ("60", Option("Net", "LinkFlappingThreshold"));
    EXPECT_EQ("10", Option("PageRetire", "ThresholdInterval"));
    EXPECT_EQ("1", Option("PageRetire", "ApeiLoggingEnabled"));
    EXPECT_EQ("E2", Option("Net", "Unknown"));
    Write("kernel/options/Net/LinkFlappingThreshold", "5\n");
    EXPECT_EQ("5", Option("Net", "LinkFlappingThreshold"));
    Write("kernel/options/Net/LinkFlappingThreshold", "five");
    EXPECT_EQ("E22", Option("Net", "LinkFlappingThreshold"));
    EXPECT_EQ(KnxReturnStatus{KNX_OK}, KIF_Set(KIF_NODE_config_intOptions,
                                               Texts({"Misc", "KelAsyncEnable"}).get(), Integer(1).get()));
    EXPECT_EQ("1", mRunDir.HostText("kernel/options/Misc/KelAsyncEnable"));
    EXPECT_EQ("1", Option("Misc", "KelAsyncEnable"));
}

TEST_F(HostTest, TheSystemUuidIsBytesThenText)
{
    EXPECT_EQ(KnxReturnStatus{KNX_NOT_FOUND}, GetUuid());
    Write("kernel/nodes/system/systemUuid", "4c4c4544-0042-3510-8054-B4C04F564433\n");
    ASSERT_EQ(KnxReturnStatus{KNX_OK}, GetUuid());
    const std::string expected("\x4c\x4c\x45\x44\x00\x42\x35\x10\x80\x54\xb4\xc0\x4f\x56\x44\x33"
                               "4c4c4544-0042-3510-8054-B4C04F564433\0\0\0\0",
                               sizeof mUuid);
    EXPECT_EQ(expected, std::string(mUuid, sizeof mUuid));
    for (const char *text :
         {"", "4c4c4544-0042-3510-8054-b4c04f56443", "4c4c4544-0042-3510-8054-b4c04f5644333",
          "4c4c4544-0042-3510-8054-b4c04f56443g", "4c4c454400-42-3510-8054-b4c04f564433"}) {
        Write("kernel/nodes/system/systemUuid", text);
        EXPECT_EQ(KnxReturnStatus{KNX_BAD_PARAM}, GetUuid()) << text;
    }
    EXPECT_EQ(KnxReturnStatus{KNX_BAD_PARAM}, KIF_Get(KIF_NODE_system_systemUuid, nullptr, mUuid, 55));
}

TEST_F(HostTest, ThePageRetireThresholdIs1000OrWhatTheFileSays)
{
    std::uint64_t threshold = 0;
    const auto get = [&] {
        return KIF_Get(KIF_NODE_system_pageRetire_threshold, nullptr, &threshold, sizeof threshold);
    };
    EXPECT_EQ(KnxReturnStatus{KNX_OK}, get());
    EXPECT_EQ(1000U, threshold);
    Write("kernel/nodes/system/pageRetire/threshold", "18446744073709551615");
    EXPECT_EQ(KnxReturnStatus{KNX_OK}, get());
    EXPECT_EQ(UINT64_MAX, threshold);
    Write("kernel/nodes/system/pageRetire/threshold", "-1");
    EXPECT_EQ(KnxReturnStatus{KNX_BAD_PARAM}, get());
}

TEST_F(HostTest, LinkFlappingIsSetOnNicsThatThereAre)
{
    const auto set = [](const char *nic, std::int64_t value) {
        return KIF_Set(KIF_NODE_net_pNics_linkFlapping, Texts({nic}).get(), Integer(value).get());
    };
    EXPECT_EQ(KnxReturnStatus{KNX_NOT_FOUND}, set("vmnic2", 1));
    mRunDir.HostDirectory("kernel/nodes/net/pNics/vmnic2");
    EXPECT_EQ(KnxReturnStatus{KNX_OK}, set("vmnic2", 1));
    EXPECT_EQ("1", mRunDir.HostText("kernel/nodes/net/pNics/vmnic2/linkFlapping"));
    EXPECT_EQ(KnxReturnStatus{KNX_BAD_PARAM}, set("vmnic2", 0));
    EXPECT_EQ(KnxReturnStatus{KNX_NOT_FOUND}, set("..", 1)) << "no NIC lies outside the NICs";
}

TEST_F(HostTest, TheSignatureMatchesWhenAbsentOrEqual)
{
    EXPECT_EQ("matches unknown", CheckSig());
    Write("kernel/signature", "0f1e2d3c4b5a69788796a5b4c3d2e1f0\n");
    Write("kernel/builddate", "Nov 21 2023 12:58:01\n");
    EXPECT_EQ("matches Nov 21 2023 12:58:01", CheckSig());
    Write("kernel/signature", "0f1e2d3c4b5a69788796a5b4c3d2e1f1\n");
    Write("kernel/builddate", "one character too far");
    EXPECT_EQ("differs unknown", CheckSig());
}

TEST_F(HostTest, AKernelStatusHasAnErrnoValue)
{
    EXPECT_EQ(0, KNX_ReturnStatusToErrno(KNX_OK));
    EXPECT_EQ(ENOENT, KNX_ReturnStatusToErrno(KNX_NOT_FOUND));
    EXPECT_EQ(EINVAL, KNX_ReturnStatusToErrno(KNX_BAD_PARAM));
    EXPECT_EQ(EACCES, KNX_ReturnStatusToErrno(KNX_NO_PERMISSION));
    EXPECT_EQ(ENOMEM, KNX_ReturnStatusToErrno(0xBAD0014));
    EXPECT_EQ(EIO, KNX_ReturnStatusToErrno(KNX_FAILURE));
    EXPECT_EQ(EIO, KNX_ReturnStatusToErrno(12345));
}

TEST_F(HostTest, AnEventIsStampedInMicroseconds)
{
    HandClock clock;
    clock.Set(1772366400, 123456);
    KTime_SetSource(&clock);
    std::uint64_t record[2] = {0, 7};
    EXPECT_EQ(0, KNX_StampEvent(record));
    KTime_SetSource(nullptr);
    EXPECT_EQ(1772366400123456U, record[0]);
    EXPECT_EQ(7U, record[1]);
}

TEST_F(HostTest, AThreadsNameIsKeptWholeAndShownCut)
{
    EXPECT_STRNE("", KThreadBase_CurName());
    std::thread([] {
        KThreadBase_SetName("UserLevelCorrelator");
        char shown[16];
        pthread_getname_np(pthread_self(), shown, sizeof shown);
        EXPECT_STREQ("UserLevelCorrelator", KThreadBase_CurName());
        EXPECT_STREQ("UserLevelCorrel", shown);
        KThreadBase_SetName(std::string(100, 'n').c_str());
        EXPECT_EQ(std::string(63, 'n'), KThreadBase_CurName());
    }).join();
    EXPECT_STRNE("UserLevelCorrelator", KThreadBase_CurName());
}

TEST_F(HostTest, TextThatDoesNotFitLeavesAnEmptyOne)
{
    char buffer[5] = "old";
    EXPECT_EQ(4, Str_Sprintf(buffer, sizeof buffer, ".%02dZ", 7));
    EXPECT_STREQ(".07Z", buffer);
    EXPECT_EQ(-1, Str_Sprintf(buffer, sizeof buffer, "%05d", 7));
    EXPECT_STREQ("", buffer);
    EXPECT_EQ(0, Str_Strcpy(buffer, "four", sizeof buffer));
    EXPECT_STREQ("four", buffer);
    EXPECT_EQ(ENAMETOOLONG, Str_Strcpy(buffer, "fives", sizeof buffer));
    EXPECT_STREQ("", buffer);
}

TEST_F(HostTest, TheRunDirectoryIsAbsoluteAndAtMost80Bytes)
{
    char path[KLT_RUN_PATH_BYTES];
    const std::string longest = "/" + std::string(79, 'r');
    setenv("KALTOR_RUN_DIR", longest.c_str(), 1);
    EXPECT_EQ(0, KltRunDir_Path("kel/async-21.sock", path, sizeof path));
    EXPECT_EQ(longest + "/kel/async-21.sock", path);
    EXPECT_EQ(0, KltRunDir_Path("", path, longest.size() + 1));
    EXPECT_EQ(longest, path);
    EXPECT_EQ(ENAMETOOLONG, KltRunDir_Path("", path, longest.size()));
    setenv("KALTOR_RUN_DIR", (longest + "r").c_str(), 1);
    EXPECT_EQ(EINVAL, KltRunDir_Path("", path, sizeof path));
    setenv("KALTOR_RUN_DIR", "run", 1);
    EXPECT_EQ(EINVAL, KltRunDir_Path("", path, sizeof path));
    unsetenv("KALTOR_RUN_DIR");
    EXPECT_EQ(0, KltRunDir_Path("kel", path, sizeof path));
    EXPECT_STREQ("/var/run/kaltor/kel", path);
}
