// Channels: which bytes come through, which are dropped and why, and who may open them.
#include "handClock.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <kltlibs/kelrecord.h>
#include <kltlibs/msgfmt.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kUser = KELLIB_USER_CONTEXT;

RecordBytes Join(const RecordBytes &first, const RecordBytes &second)
{
    RecordBytes both = first;
    both.insert(both.end(), second.begin(), second.end());
    return both;
}

// A record of exactly so many bytes.
RecordBytes RecordOf(std::size_t bytes)
{
    const std::size_t rest = MakeRecord("kel.a", "%s", "").size();
    return MakeRecord("kel.a", "%s", std::string(bytes - rest, 'x').c_str());
}

short Events(int fd)
{
    pollfd state{fd, POLLIN, 0};
    poll(&state, 1, 0);
    return state.revents;
}

std::string IdsOf(const char *batch, std::size_t length)
{
    std::string ids;
    for (std::size_t at = 0; at < length; at += KelRecord_TotalLength(batch + at))
        ids += (ids.empty() ? "" : " ") + std::string(KelRecord_ID(batch + at));
    return ids;
}

class ChannelTest : public testing::Test {
protected:
    ChannelTest() { KTime_SetSource(&mClock); }

    ~ChannelTest() override
    {
        for (KelLibHandle *handle : mHandles)
            if (handle != nullptr) Close(handle);
        KTime_SetSource(nullptr);
    }

    KelLibHandle *Open(int context)
    {
        KelLibHandle *handle = nullptr;
        EXPECT_EQ(0, context == kUser ? KelLib_UserContextOpen(context, &handle)
                                      : KelLib_AsyncContextOpen(context, &handle));
        mHandles.at(static_cast<std::size_t>(context)) = handle;
        return handle;
    }

    void Close(KelLibHandle *handle)
    {
        std::replace(mHandles.begin(), mHandles.end(), handle, static_cast<KelLibHandle *>(nullptr));
        EXPECT_EQ(0, KelLib_Close(handle));
    }

    static int FdOf(KelLibHandle *handle)
    {
        int fd = -1;
        EXPECT_EQ(0, KelLib_HandleToFd(handle, &fd));
        return fd;
    }

    // The IDs read, "27", or "error 9".
    std::string Read(int fd, std::size_t size = 0x20000)
    {
        std::vector<char> buffer(size);
        std::uint32_t count = 77;
        const int status = KelLib_ReadFromFd(fd, buffer.data(), static_cast<std::uint32_t>(size), &count);
        mCount = count;
        if (status == KELLIB_STATUS_TOO_SMALL) return "27";
        return status == 0 ? IdsOf(buffer.data(), count) : "error " + std::to_string(status);
    }

    RunDir mRunDir;
    LogCapture mLog;
    HandClock mClock;
    std::array<KelLibHandle *, KELLIB_ASYNC_CONTEXTS + 1> mHandles{};
    std::uint32_t mCount = 0; // bytes of the last read
};

using UserChannelTest = ChannelTest;

// A process that opens channels on demand, closes them at once and tells of the result.
class OtherProcess {
public:
    OtherProcess()
    {
        EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, mFds));
        mChild = fork();
        if (mChild != 0) return;
        close(mFds[0]);
        for (char context; read(mFds[1], &context, 1) == 1;) {
            KelLibHandle *handle;
            const int status = context == kUser ? KelLib_UserContextOpen(context, &handle)
                                                : KelLib_AsyncContextOpen(context, &handle);
            if (handle != nullptr) KelLib_Close(handle);
            if (write(mFds[1], &status, sizeof status) != sizeof status) break;
        }
        _exit(0);
    }

    ~OtherProcess()
    {
        close(mFds[0]);
        close(mFds[1]);
        waitpid(mChild, nullptr, 0);
    }

    int Open(char context)
    {
        int status = -1;
        EXPECT_EQ(1, write(mFds[0], &context, 1));
        EXPECT_EQ(static_cast<ssize_t>(sizeof status), read(mFds[0], &status, sizeof status));
        return status;
    }

private:
    int mFds[2];
    pid_t mChild;
};

// One change to the second of two records, and what is said of it.
struct Corruption {
    const char *fault;
    std::function<void(RecordBytes &)> change;
};

std::function<void(RecordBytes &)> Word(std::size_t offset, std::uint32_t value)
{
    return [=](RecordBytes &record) { std::memcpy(record.data() + offset, &value, sizeof value); };
}

std::function<void(RecordBytes &)> Byte(std::size_t offset, char value)
{
    return [=](RecordBytes &record) { record[offset] = static_cast<std::byte>(value); };
}

std::function<void(RecordBytes &)> Cut(std::size_t bytes)
{
    return [=](RecordBytes &record) { record.resize(bytes); };
}

// "kel.net.up" at 32-42, "%s %d %s" at 43-51, entries at 52, 68 and 84, "vmnic2" at 100, "up" at 107;
// 110 bytes.
const Corruption kCorruptions[] = {
    {"too few bytes for a record", Cut(1)},
    {"too few bytes for a record", Cut(34)},
    {"total length behind the end", Cut(109)},
    {"wrong magic", Byte(8, 'k')},
    {"wrong magic", Byte(11, '2')},
    {"too many arguments", Word(12, 33)},
    {"too many arguments", Word(12, 0xFFFFFFFF)},
    {"argument array outside the record", Word(12, 4)},
    {"argument array outside the record", Word(12, 32)},
    {"total length too small", Word(16, 0)},
    {"total length too small", Word(16, 34)},
    {"total length behind the end", Word(16, 111)},
    {"total length behind the end", Word(16, 0x1FFFF)},
    {"total length too large", Word(16, 0x20000)},
    {"total length too large", Word(16, 0xFFFFFFFF)},
    {"argument 2: string outside the record", Word(16, 109)},
    {"ID outside the record", Word(16, 35)},
    {"message format not behind the ID", Word(20, 42)},
    {"message format not behind the ID", Word(20, 0xFFFFFFFF)},
    {"argument area outside the record", Word(24, 111)},
    {"argument area outside the record", Word(24, 0xFFFFFFFF)},
    {"argument area not behind the message format", Word(24, 43)},
    {"argument area not behind the message format", Word(24, 0)},
    {"argument area not behind the message format", Word(24, 53)},
    {"message format not NUL-terminated", Word(24, 51)},
    {"message format not NUL-terminated", Byte(51, 'x')},
    {"argument area not behind the message format", Byte(45, '\0')},
    {"ID length out of range", Word(28, 0)},
    {"ID length out of range", Word(28, 1)},
    {"ID length out of range", Word(28, 129)},
    {"ID not NUL-terminated", Word(28, 10)},
    {"ID not NUL-terminated", Byte(42, '.')},
    {"ID with a wrong character", Byte(35, '/')},
    {"ID with a wrong character", Byte(35, '\0')},
    {"argument 0: string without a length", Word(56, 0)},
    {"argument 0: string not NUL-terminated", Word(56, 6)},
    {"argument 0: NUL inside the string", Word(56, 10)},
    {"argument 0: string outside the record", Word(56, 0xFFFFFFFF)},
    {"argument 0: string inside the argument array", Word(60, 47)},
    {"argument 0: string outside the record", Word(60, 0xFFFFFFF9)},
    {"argument 0: string outside the record", Word(64, 1)},
    {"argument 1: string without a length", Word(68, MSGFMT_TYPE_STRING)},
    {"argument 2: string outside the record", Word(92, 56)},
    {"argument 2: string not NUL-terminated", Byte(109, '!')},
};

// Of an argument's entry what nobody reads, or is carried as it is.
const Corruption kTolerated[] = {
    {"a reserved type code", Word(52, 5)},
    {"a type code of later times", Word(68, 77)},
    {"the invalid type code", Word(68, 0)},
    {"a length with an integer", Word(72, 9)},
    {"the upper half of a 32-bit integer", Word(80, 0x12345678)},
    {"two arguments with one string", Word(92, 55)},
    {"bytes that no string uses",
     [](RecordBytes &record) {
         record.resize(record.size() + 5);
         Word(16, 115)(record);
     }},
};

RecordBytes Corrupted(const Corruption &corruption)
{
    RecordBytes record = MakeRecord("kel.net.up", "%s %d %s", "vmnic2", 7, "up");
    EXPECT_EQ(110U, record.size());
    corruption.change(record);
    return record;
}

} // namespace

TEST_F(ChannelTest, EveryCorruptionIsDroppedWholeWithItsReason)
{
    const int fd = FdOf(Open(3));
    RawProducer producer(3);
    const RecordBytes first = RecordOf(60), good = MakeRecord("kel.good", "ok");
    for (const Corruption &corruption : kCorruptions) {
        const LogCapture log;
        const RecordBytes bad = Join(first, Corrupted(corruption));
        ASSERT_EQ(0, producer.Send(bad));
        ASSERT_EQ(0, producer.Send(good));
        EXPECT_EQ("kel.good", Read(fd)) << corruption.fault;
        const std::vector<std::string> expected{"async-3: dropped " + std::to_string(bad.size()) +
                                                " bytes: record at byte 60: " + corruption.fault};
        EXPECT_EQ(expected, log.Lines());
        mClock.Advance(60);
    }
}

TEST_F(ChannelTest, WhatNobodyReadsOfAnArgumentIsCarriedAsItIs)
{
    const int fd = FdOf(Open(3));
    RawProducer producer(3);
    for (const Corruption &tolerated : kTolerated) {
        ASSERT_EQ(0, producer.Send(Corrupted(tolerated)));
        EXPECT_EQ("kel.net.up", Read(fd)) << tolerated.fault;
    }
    EXPECT_EQ(std::vector<std::string>(), mLog.Lines());
}

TEST_F(ChannelTest, AnEmptyDatagramIsDropped)
{
    const int fd = FdOf(Open(0));
    RawProducer producer(0);
    ASSERT_EQ(0, producer.Send({}));
    EXPECT_EQ("", Read(fd));
    EXPECT_EQ(
        std::vector<std::string>{"async-0: dropped 0 bytes: record at byte 0: too few bytes for a record"},
        mLog.Lines());
    EXPECT_EQ(0, Events(fd));
}

TEST_F(ChannelTest, TenLinesAMinuteAndTheNumberHeldBack)
{
    const int fd = FdOf(Open(3)), other = FdOf(Open(4));
    RawProducer producer(3), otherProducer(4);
    const RecordBytes bad(7);
    const auto sendBad = [&](int count) {
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(0, producer.Send(bad));
            EXPECT_EQ("", Read(fd));
        }
    };
    sendBad(26);
    mClock.Advance(59);
    sendBad(1);
    EXPECT_EQ(10U, mLog.Lines().size());

    EXPECT_EQ(0, otherProducer.Send(bad));
    EXPECT_EQ("", Read(other));
    EXPECT_EQ(1U, mLog.LinesWith("async-4: ").size()) << "every channel has lines of its own";

    mClock.Set(0); // the wall clock has no part in it
    mClock.Advance(1);
    sendBad(11);
    const auto lines = mLog.LinesWith("async-3: ");
    ASSERT_EQ(20U, lines.size());
    const std::string line = "async-3: dropped 7 bytes: record at byte 0: too few bytes for a record";
    EXPECT_EQ(line, lines[9]);
    EXPECT_EQ(line + " (17 more suppressed)", lines[10]);
    EXPECT_EQ(line, lines[11]);
}

TEST_F(ChannelTest, WaitingDatagramsComeTogether)
{
    const int fd = FdOf(Open(21));
    EXPECT_EQ("", Read(fd));
    Send(21, "kel.one", "%d", 1);
    Send(21, "kel.two", "two");
    RawProducer producer(21);
    ASSERT_EQ(0, producer.Send(Join(MakeRecord("kel.three", "a"), MakeRecord("kel.four", "b"))));
    EXPECT_EQ("kel.one kel.two kel.three kel.four", Read(fd));
    EXPECT_EQ(0, Events(fd));
}

TEST_F(ChannelTest, ADatagramIsNeverSplit)
{
    const int fd = FdOf(Open(0));
    RawProducer producer(0);
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(0, producer.Send(RecordOf(100)));
    EXPECT_EQ("27", Read(fd, 99));
    EXPECT_EQ("27", Read(fd, 0));
    EXPECT_EQ(0U, mCount);
    EXPECT_EQ(POLLIN, Events(fd)) << "nothing was consumed";
    EXPECT_EQ("kel.a", Read(fd, 199));
    EXPECT_EQ(POLLIN, Events(fd));
    EXPECT_EQ("kel.a kel.a", Read(fd, 200));
    EXPECT_EQ("", Read(fd));
    EXPECT_EQ(0, Events(fd));
    EXPECT_EQ(std::vector<std::string>(), mLog.Lines());
}

TEST_F(ChannelTest, AsManyComeTogetherAsFitWhateverTheirSizes)
{
    const int fd = FdOf(Open(0));
    RawProducer producer(0);
    for (const unsigned size : {100U, 100U, 60U, 60U, 100U})
        ASSERT_EQ(0, producer.Send(RecordOf(size)));
    EXPECT_EQ("kel.a kel.a kel.a", Read(fd, 270)) << "the small one fits where another large one would not";
    EXPECT_EQ("kel.a", Read(fd, 159));
    EXPECT_EQ(POLLIN, Events(fd)) << "the large one waits though a small one came before it";
    EXPECT_EQ("kel.a", Read(fd, 100));
    EXPECT_EQ(0, Events(fd));
}

TEST_F(ChannelTest, WhatHasToWaitIsReportedByPollWhateverTheQueueHolds)
{
    const int fd = FdOf(Open(0));
    RawProducer producer(0);
    fcntl(producer.Fd(), F_SETFL, O_NONBLOCK);
    int queued = 0;
    while (producer.Send(RecordOf(100)) == 0)
        ++queued;
    for (; queued > 0; --queued) {
        EXPECT_EQ(POLLIN, Events(fd));
        EXPECT_EQ("27", Read(fd, 50));
        EXPECT_EQ(POLLIN, Events(fd));
        EXPECT_EQ("kel.a", Read(fd, 150)) << queued; // the next one is one too many
    }
    EXPECT_EQ("", Read(fd));
    EXPECT_EQ(0, Events(fd));
    ASSERT_EQ(0, producer.Send({}));
    EXPECT_EQ("", Read(fd));
    EXPECT_EQ(1U, mLog.Lines().size()) << "a producer's empty datagram is still told apart";
}

TEST_F(ChannelTest, ABatchIsAtMost131071Bytes)
{
    const int fd = FdOf(Open(0));
    RawProducer producer(0);
    const auto send = [&](std::size_t first, std::size_t second) {
        ASSERT_EQ(0, producer.Send(RecordOf(first)));
        ASSERT_EQ(0, producer.Send(RecordOf(second)));
    };
    send(0x10000, 0xFFFF);
    EXPECT_EQ("kel.a kel.a", Read(fd));
    EXPECT_EQ(0x1FFFFU, mCount);
    send(0x10000, 0x10000);
    EXPECT_EQ("kel.a", Read(fd)) << "together they are one byte too many";
    EXPECT_EQ("kel.a", Read(fd));
    ASSERT_EQ(0, producer.Send(RecordOf(0x1FFFF)));
    EXPECT_EQ("kel.a", Read(fd));
}

TEST_F(ChannelTest, ASingleDatagramOfMoreWaitsForALargerBuffer)
{
    KelLibHandle *handle = Open(0);
    const int fd = FdOf(handle);
    RawProducer producer(0);
    const RecordBytes half = RecordOf(0x10000), good = MakeRecord("kel.good", "ok");
    ASSERT_EQ(0, producer.Send(Join(half, half)));
    ASSERT_EQ(0, producer.Send(good));
    std::string results;
    for (const unsigned size : {8192U, 12288U, 18432U, 27648U, 41472U, 62208U, 93312U, 131071U})
        results += Read(fd, size) + " ";
    EXPECT_EQ("27 27 27 27 27 27 27 27 ", results);
    EXPECT_EQ("kel.a kel.a", Read(fd));
    EXPECT_EQ(0x20000U, mCount);
    EXPECT_EQ("kel.good", Read(fd));

    ASSERT_EQ(0, producer.Send(Join(Join(half, half), half)));
    ASSERT_EQ(0, producer.Send(good));
    EXPECT_EQ("27", Read(fd));
    EXPECT_EQ(0, KelLib_Reset(handle));
    EXPECT_EQ("", Read(fd)) << "all that waited is gone";
    ASSERT_EQ(0, producer.Send(good));
    EXPECT_EQ("kel.good", Read(fd));
}

TEST_F(ChannelTest, HasTheLibrarysNames)
{
    char name[KELLIB_NAME_BYTES_MAX];
    EXPECT_EQ(0, KelLib_HandleToName(Open(0), name));
    EXPECT_STREQ("async-0", name);
    EXPECT_EQ(0, KelLib_HandleToName(Open(21), name));
    EXPECT_STREQ("async-21", name);
    EXPECT_EQ(0, KelLib_HandleToName(Open(kUser), name));
    EXPECT_STREQ("user", name);
}

TEST_F(ChannelTest, OpensContextsThatThereAre)
{
    KelLibHandle *handle;
    for (const int context : {-1, 22, 23})
        EXPECT_EQ(EINVAL, KelLib_AsyncContextOpen(context, &handle)) << context;
    for (const int context : {-1, 0, 21, 23})
        EXPECT_EQ(EINVAL, KelLib_UserContextOpen(context, &handle)) << context;
    setenv("KALTOR_RUN_DIR", "not/absolute", 1);
    EXPECT_EQ(EINVAL, KelLib_AsyncContextOpen(0, &handle));
}

TEST_F(ChannelTest, MakesItsFilesWithTheirModesWhateverTheUmask)
{
    setenv("KALTOR_RUN_DIR", mRunDir.Path("new").c_str(), 1);
    const mode_t before = umask(0077);
    Open(0);
    umask(0);
    Open(kUser);
    umask(before);
    const auto modeOf = [&](const std::string &name) {
        struct stat status {};
        EXPECT_EQ(0, stat(mRunDir.Path(name).c_str(), &status)) << name;
        return status.st_mode;
    };
    EXPECT_EQ(S_IFDIR | 0755U, modeOf("new"));
    EXPECT_EQ(S_IFDIR | 0755U, modeOf("new/kel"));
    EXPECT_EQ(S_IFSOCK | 0600U, modeOf("new/kel/async-0.sock"));
    EXPECT_EQ(S_IFSOCK | 0660U, modeOf("new/kel/user.sock"));
    EXPECT_EQ(S_IFREG | 0600U, modeOf("new/kel/lock"));
}

TEST_F(ChannelTest, MakesALeftOverSocketAnewAndRemovesItsOwn)
{
    const std::string path = mRunDir.Path("kel/async-0.sock");
    ASSERT_EQ(0, mkdir(mRunDir.Path("kel").c_str(), 0755));
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0644));
    KelLibHandle *handle = Open(0);
    Send(0, "kel.a", "a");
    EXPECT_EQ("kel.a", Read(FdOf(handle)));
    Close(handle);
    EXPECT_NE(0, access(path.c_str(), F_OK));
}

TEST_F(ChannelTest, ASecondDaemonGets16AndTouchesNothing)
{
    OtherProcess other; // begun before this one has anything open
    KelLibHandle *first = Open(0), *second = Open(kUser);
    KelLibHandle *again;
    EXPECT_EQ(EBUSY, KelLib_AsyncContextOpen(0, &again));
    EXPECT_EQ(EBUSY, other.Open(0));
    EXPECT_EQ(EBUSY, other.Open(1));
    EXPECT_EQ(EBUSY, other.Open(kUser));
    EXPECT_NE(0, access(mRunDir.Path("kel/async-1.sock").c_str(), F_OK));
    Send(0, "kel.a", "a");
    EXPECT_EQ("kel.a", Read(FdOf(first)));
    Close(first);
    EXPECT_EQ(EBUSY, other.Open(0)) << "one channel is still open";
    Close(second);
    EXPECT_EQ(0, other.Open(0)) << "the last one has gone";
}

TEST_F(ChannelTest, AFailedOpenNamesThePath)
{
    mRunDir.Host("kernel/signature", "x");
    setenv("KALTOR_RUN_DIR", mRunDir.Path("host/kernel/signature").c_str(), 1);
    KelLibHandle *handle;
    EXPECT_EQ(ENOTDIR, KelLib_AsyncContextOpen(0, &handle));
    EXPECT_EQ(nullptr, handle);
    EXPECT_EQ(1U, mLog.LinesWith(mRunDir.Path("host/kernel/signature/kel")).size());
}

TEST_F(UserChannelTest, PacketsComeThroughUntilThePeerCloses)
{
    KelLibHandle *handle = Open(kUser);
    int fd;
    EXPECT_EQ(EAGAIN, KelLib_UserContextNewCnx(handle, &fd)) << "nobody has connected";
    KelProducer *producer;
    ASSERT_EQ(0, KelProducer_Open(KELPRODUCER_USER_CONTEXT, &producer));
    ASSERT_EQ(0, KelLib_UserContextNewCnx(handle, &fd));
    EXPECT_EQ("", Read(fd));
    EXPECT_EQ(0, KelProducer_Emit(producer, "kel.user.small", "%s", "x"));
    EXPECT_EQ(0, KelProducer_Emit(producer, "kel.user.large", "%s", std::string(100000, 'x').c_str()));
    KelProducer_Close(producer);
    EXPECT_EQ("kel.user.small", Read(fd, 8192));
    EXPECT_EQ("27", Read(fd, 8192));
    EXPECT_EQ("kel.user.large", Read(fd)) << "what was sent is delivered all the same";
    EXPECT_EQ("", Read(fd));
    EXPECT_TRUE(Events(fd) & POLLHUP);
    EXPECT_EQ(0, KelLib_UserContextCloseCnx(fd));
}

TEST_F(UserChannelTest, AHalfClosedConnectionReportsAHangUpAfterItsLastPacket)
{
    KelLibHandle *handle = Open(kUser);
    RawProducer producer(kUser);
    int fd;
    ASSERT_EQ(0, KelLib_UserContextNewCnx(handle, &fd));
    ASSERT_EQ(0, producer.Send(MakeRecord("kel.user.last", "a")));
    ASSERT_EQ(0, shutdown(producer.Fd(), SHUT_WR));
    EXPECT_EQ("kel.user.last", Read(fd));
    EXPECT_FALSE(Events(fd) & POLLHUP);
    EXPECT_EQ("", Read(fd));
    EXPECT_TRUE(Events(fd) & POLLHUP);
    EXPECT_EQ("", Read(fd));
    EXPECT_EQ(0, KelLib_UserContextCloseCnx(fd));
}

TEST_F(UserChannelTest, AnEmptyPacketEndsTheStream)
{
    KelLibHandle *handle = Open(kUser);
    RawProducer producer(kUser);
    int fd;
    ASSERT_EQ(0, KelLib_UserContextNewCnx(handle, &fd));
    ASSERT_EQ(0, producer.Send({}));
    ASSERT_EQ(0, producer.Send(MakeRecord("kel.user.late", "a")));
    EXPECT_EQ("", Read(fd));
    EXPECT_TRUE(Events(fd) & POLLHUP);
    EXPECT_EQ("", Read(fd)) << "nothing comes behind the end";
    EXPECT_EQ(EPIPE, producer.Send(MakeRecord("kel.user.late", "a")));
    EXPECT_EQ(0, KelLib_UserContextCloseCnx(fd));
}

TEST_F(UserChannelTest, BadPacketsArePassedOver)
{
    KelLibHandle *handle = Open(kUser);
    RawProducer producer(kUser);
    int fd;
    ASSERT_EQ(0, KelLib_UserContextNewCnx(handle, &fd));
    const RecordBytes half = RecordOf(0x10000);
    ASSERT_EQ(0, producer.Send(Join(half, half)));
    ASSERT_EQ(0, producer.Send(RecordBytes(96)));
    ASSERT_EQ(0, producer.Send(MakeRecord("kel.user.good", "a")));
    EXPECT_EQ("kel.user.good", Read(fd, 8192)) << "no larger buffer is asked for either";
    const std::vector<std::string> expected{"user: dropped 131072 bytes: larger than a batch may be",
                                            "user: dropped 96 bytes: record at byte 0: wrong magic"};
    EXPECT_EQ(expected, mLog.Lines());
    EXPECT_EQ(0, KelLib_UserContextCloseCnx(fd));
}

TEST_F(UserChannelTest, OnlyConnectionsAreClosedAsSuch)
{
    KelLibHandle *handle = Open(kUser);
    EXPECT_GT(0, KelLib_UserContextCloseCnx(-1));
    EXPECT_GT(0, KelLib_UserContextCloseCnx(FdOf(handle)));
    EXPECT_GT(0, KelLib_UserContextCloseCnx(FdOf(Open(0))));
    EXPECT_GT(0, KelLib_UserContextCloseCnx(mLog.Fd()));
    int fd;
    EXPECT_EQ(EINVAL, KelLib_UserContextNewCnx(mHandles[0], &fd));
}

TEST_F(UserChannelTest, AConnectionWithoutADescriptorForItIsTurnedAway)
{
    KelLibHandle *handle = Open(kUser);
    RawProducer producer(kUser);
    rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &before));
    const int next = dup(0);
    close(next);
    const rlimit none{static_cast<rlim_t>(next), before.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    int fd;
    EXPECT_EQ(EMFILE, KelLib_UserContextNewCnx(handle, &fd));
    EXPECT_EQ(0, Events(FdOf(handle))) << "poll would report it for ever";
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &before));
    EXPECT_TRUE(producer.WaitUntilClosed());
}
