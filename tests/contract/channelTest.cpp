// Channels: which bytes come through, which are dropped and why, and who may open them.
#include "handClock.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <future>
#include <gtest/gtest.h>
#include <kltlibs/kelrecord.h>
#include <kltlibs/msgfmt.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using Lines = std::vector<std::string>;

constexpr int kUser = KELLIB_USER_CONTEXT;

RecordBytes operator+(RecordBytes first, const RecordBytes &second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
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
        KelLibHandle *&handle = mHandles.at(static_cast<std::size_t>(context));
        EXPECT_EQ(0,
                  (context == kUser ? KelLib_UserContextOpen : KelLib_AsyncContextOpen)(context, &handle));
        return handle;
    }
    static int FdOf(KelLibHandle *handle)
    {
        int fd = -1;
        EXPECT_EQ(0, KelLib_HandleToFd(handle, &fd));
        return fd;
    }
    int OpenFd(int context) { return FdOf(Open(context)); }
    void Close(KelLibHandle *handle)
    {
        for (KelLibHandle *&each : mHandles)
            if (each == handle) each = nullptr;
        EXPECT_EQ(0, KelLib_Close(handle));
    }

    // The daemon's end of a connection to the user-level context, which is opened.
    int Accept(std::optional<RawProducer> &producer)
    {
        KelLibHandle *handle = Open(kUser);
        producer.emplace(kUser);
        int fd = -1;
        EXPECT_EQ(0, KelLib_UserContextNewCnx(handle, &fd));
        return fd;
    }

    // The IDs read, "27", or "error 9".
    std::string Read(int fd, std::size_t size = 0x20000)
    {
        std::vector<char> buffer(size);
        const int status = KelLib_ReadFromFd(fd, buffer.data(), static_cast<std::uint32_t>(size), &mCount);
        if (status == KELLIB_STATUS_TOO_SMALL) return "27";
        return status == 0 ? IdsOf(buffer.data(), mCount) : "error " + std::to_string(status);
    }

    RunDir mRunDir;
    LogCapture mLog;
    HandClock mClock;
    std::array<KelLibHandle *, KELLIB_ASYNC_CONTEXTS + 1> mHandles{};
    std::uint32_t mCount = 77; // bytes of the last read
};

using UserChannelTest = ChannelTest;

// ---- What a record may be -------------------------------------------------------------------------

// One change to a record, and what is said of it.
struct Change {
    const char *what;
    std::function<void(RecordBytes &)> make;
};

std::function<void(RecordBytes &)> Word(std::size_t offset, std::uint32_t value)
{
    return [=](RecordBytes &record) { std::memcpy(record.data() + offset, &value, sizeof value); };
}

std::function<void(RecordBytes &)> Byte(std::size_t offset, char value)
{
    return [=](RecordBytes &record) { record[offset] = static_cast<std::byte>(value); };
}

std::function<void(RecordBytes &)> Size(std::size_t bytes)
{
    return [=](RecordBytes &record) { record.resize(bytes); };
}

// "kel.net.up" at 32-42, "%s %d %s" at 43-51, entries at 52, 68 and 84, "vmnic2" at 100, "up" at 107;
// 110 bytes.
const Change kCorruptions[] = {
    {"too few bytes for a record", Size(34)},
    {"total length behind the end", Size(109)},
    {"wrong magic", Byte(11, '2')},
    {"too many arguments", Word(12, 33)},
    {"argument array outside the record", Word(12, 4)},
    {"total length too small", Word(16, 34)},
    {"total length behind the end", Word(16, 111)},
    {"total length too large", Word(16, 0x20000)},
    {"argument 2: string outside the record", Word(16, 109)},
    {"ID outside the record", Word(16, 35)},
    {"message format not behind the ID", Word(20, 42)},
    {"message format not behind the ID", Word(20, 44)},
    {"argument area outside the record", Word(24, 111)},
    {"argument area not behind the message format", Word(24, 43)},
    {"argument area not behind the message format", Word(24, 53)},
    {"message format not NUL-terminated", Word(24, 51)},
    {"message format not NUL-terminated", Byte(51, 'x')},
    {"argument area not behind the message format", Byte(45, '\0')},
    {"ID length out of range", Word(28, 1)},
    {"ID length out of range", Word(28, 129)},
    {"ID not NUL-terminated", Word(28, 10)},
    {"ID with a wrong character", Byte(35, '/')},
    {"ID with a wrong character", Byte(35, '\0')},
    {"argument 0: string without a length", Word(56, 0)},
    {"argument 0: string not NUL-terminated", Word(56, 6)},
    {"argument 0: NUL inside the string", Word(56, 10)},
    {"argument 0: string inside the argument array", Word(60, 47)},
    {"argument 0: string outside the record", Word(60, 0xFFFFFFF9)},
    {"argument 0: string outside the record", Word(64, 1)},
    {"argument 1: string without a length", Word(68, MSGFMT_TYPE_STRING)},
    {"argument 2: string outside the record", Word(92, 56)},
    {"argument 2: string not NUL-terminated", Byte(109, '!')},
};

// Of an argument's entry what nobody reads, or is carried as it is.
const Change kTolerated[] = {
    {"a reserved type code", Word(52, 5)},
    {"a type code of later times", Word(68, 77)},
    {"a length with an integer", Word(72, 9)},
    {"the upper half of a 32-bit integer", Word(80, 0x12345678)},
    {"two arguments with one string", Word(92, 55)},
    {"bytes that no string uses",
     [](RecordBytes &record) {
         record.resize(115);
         Word(16, 115)(record);
     }},
};

RecordBytes Changed(const Change &change)
{
    RecordBytes record = MakeRecord("kel.net.up", "%s %d %s", "vmnic2", 7, "up");
    EXPECT_EQ(110U, record.size());
    change.make(record);
    return record;
}

TEST_F(ChannelTest, EveryCorruptionIsDroppedWholeWithItsReason)
{
    const int fd = OpenFd(3);
    RawProducer producer(3);
    const RecordBytes first = RecordOf(60), good = MakeRecord("kel.good", "ok");
    for (const Change &corruption : kCorruptions) {
        const LogCapture log;
        const RecordBytes bad = first + Changed(corruption);
        ASSERT_EQ(0, producer.Send(bad));
        ASSERT_EQ(0, producer.Send(good));
        EXPECT_EQ("kel.good", Read(fd)) << corruption.what;
        EXPECT_EQ(Lines{"async-3: dropped " + std::to_string(bad.size()) +
                        " bytes: record at byte 60: " + corruption.what},
                  log.Lines());
        mClock.Advance(60);
    }
}

TEST_F(ChannelTest, WhatNobodyReadsOfAnArgumentIsCarriedAsItIs)
{
    const int fd = OpenFd(3);
    RawProducer producer(3);
    for (const Change &tolerated : kTolerated) {
        ASSERT_EQ(0, producer.Send(Changed(tolerated)));
        EXPECT_EQ("kel.net.up", Read(fd)) << tolerated.what;
    }
    const std::string longestId(127, 'k');
    RecordBytes smallest(35); // a header, an ID of one letter, an empty message
    std::size_t length = 0;
    ASSERT_EQ(0, KelRecord_BuildFromArgs(smallest.data(), 35, &length, 0, "k", "", nullptr, 0));
    ASSERT_EQ(0, producer.Send(smallest + MakeRecord(longestId.c_str(), " ")));
    EXPECT_EQ("k " + longestId, Read(fd));
    EXPECT_EQ(Lines{}, mLog.Lines());
}

TEST_F(ChannelTest, TenLinesAMinuteAndTheNumberHeldBack)
{
    const auto sendBad = [&](int context, int fd, int count) {
        RawProducer producer(context);
        for (int i = 0; i < count; ++i) {
            EXPECT_EQ(0, producer.Send({}));
            EXPECT_EQ("", Read(fd));
        }
    };
    const int fd = OpenFd(3), other = OpenFd(4);
    sendBad(3, fd, 26);
    mClock.Advance(59);
    sendBad(3, fd, 1);
    EXPECT_EQ(10U, mLog.Lines().size());
    sendBad(4, other, 1);
    EXPECT_EQ(1U, mLog.LinesWith("async-4: ").size()) << "every channel has lines of its own";
    mClock.Set(0); // the wall clock has no part in it
    mClock.Advance(1);
    sendBad(3, fd, 11);
    const Lines lines = mLog.LinesWith("async-3: ");
    ASSERT_EQ(20U, lines.size());
    const std::string line = "async-3: dropped 0 bytes: record at byte 0: too few bytes for a record";
    EXPECT_EQ(line + " (17 more suppressed)", lines[10]);
    EXPECT_EQ(line, lines[11]);
}

// ---- What one read brings -------------------------------------------------------------------------

TEST_F(ChannelTest, WaitingDatagramsComeTogetherAndNoneIsSplit)
{
    const int fd = OpenFd(21);
    RawProducer producer(21);
    EXPECT_EQ("", Read(fd));
    Send(21, "kel.one", "%d", 1);
    ASSERT_EQ(0, producer.Send(MakeRecord("kel.two", "a") + MakeRecord("kel.three", "b")));
    EXPECT_EQ("kel.one kel.two kel.three", Read(fd));
    EXPECT_EQ(0, Events(fd));

    for (const unsigned size : {100U, 100U, 60U, 60U, 100U})
        ASSERT_EQ(0, producer.Send(RecordOf(size)));
    EXPECT_EQ("27", Read(fd, 99));
    EXPECT_EQ("27", Read(fd, 0));
    EXPECT_EQ(0U, mCount);
    EXPECT_EQ(POLLIN, Events(fd)) << "nothing was consumed";
    EXPECT_EQ("kel.a kel.a kel.a", Read(fd, 260)) << "the small one fits where another large one would not";
    EXPECT_EQ("kel.a", Read(fd, 159));
    EXPECT_EQ(POLLIN, Events(fd)) << "the large one waits though a small one came before it";
    EXPECT_EQ("kel.a", Read(fd, 100));
    EXPECT_EQ(0, Events(fd));
    EXPECT_EQ(Lines{}, mLog.Lines());
}

TEST_F(ChannelTest, WhatHasToWaitIsReportedByPollWhateverTheQueueHolds)
{
    const int fd = OpenFd(0);
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

TEST_F(ChannelTest, ABatchIsAtMost131071BytesAndALargerDatagramNeedsALargerBuffer)
{
    KelLibHandle *handle = Open(0);
    const int fd = FdOf(handle);
    RawProducer producer(0);
    const auto send = [&](std::initializer_list<std::size_t> sizes) {
        RecordBytes datagram;
        for (const std::size_t size : sizes)
            datagram = datagram + RecordOf(size);
        ASSERT_EQ(0, producer.Send(datagram));
    };
    send({0x10000});
    send({0xFFFF});
    EXPECT_EQ("kel.a kel.a", Read(fd));
    EXPECT_EQ(0x1FFFFU, mCount);
    send({0x10000});
    send({0x10000});
    EXPECT_EQ("kel.a", Read(fd)) << "together they are one byte too many";
    EXPECT_EQ("kel.a", Read(fd));
    send({0x1FFFF});
    EXPECT_EQ("kel.a", Read(fd));

    send({0x10000, 0x10000});
    send({60});
    EXPECT_EQ("27", Read(fd, 8192));
    EXPECT_EQ("27", Read(fd, 0x1FFFF));
    EXPECT_EQ("kel.a kel.a", Read(fd));
    EXPECT_EQ(0x20000U, mCount);
    EXPECT_EQ("kel.a", Read(fd));

    ASSERT_EQ(0, producer.Send(RecordBytes(140'000)));
    send({60});
    EXPECT_EQ("kel.a", Read(fd)) << "a malformed one is dropped, whatever its size";
    EXPECT_EQ(Lines{"async-0: dropped 140000 bytes: record at byte 0: wrong magic"}, mLog.Lines());

    send({0x10000, 0x10000, 60});
    send({60});
    EXPECT_EQ("27", Read(fd));
    EXPECT_EQ(0, KelLib_Reset(handle));
    EXPECT_EQ("", Read(fd)) << "all that waited is gone";
    send({60});
    EXPECT_EQ("kel.a", Read(fd));
}

// ---- Opening --------------------------------------------------------------------------------------

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

TEST_F(ChannelTest, TheRunDirectoryIsLockedWhileAChannelIsOpen)
{
    const std::string path = mRunDir.Path("kel/async-0.sock");
    ASSERT_EQ(0, mkdir(mRunDir.Path("kel").c_str(), 0755));
    close(open(path.c_str(), O_CREAT | O_WRONLY, 0644)); // left over: made anew
    KelLibHandle *first = Open(0), *second = Open(kUser);
    KelLibHandle *again;
    char name[KELLIB_NAME_BYTES_MAX];
    EXPECT_EQ(0, KelLib_HandleToName(first, name));
    EXPECT_STREQ("async-0", name);
    EXPECT_EQ(EBUSY, KelLib_AsyncContextOpen(0, &again));
    EXPECT_EQ(EINVAL, KelLib_AsyncContextOpen(kUser, &again));
    EXPECT_EQ(EINVAL, KelLib_UserContextOpen(21, &again));
    const int lock = open(mRunDir.Path("kel/lock").c_str(), O_RDWR | O_CLOEXEC); // as another daemon
    EXPECT_NE(0, flock(lock, LOCK_EX | LOCK_NB));
    ASSERT_EQ(0, unlink(mRunDir.Path("kel/user.sock").c_str()));
    close(open(mRunDir.Path("kel/user.sock").c_str(), O_CREAT | O_WRONLY, 0644)); // somebody else's by now
    Close(first);
    EXPECT_NE(0, access(path.c_str(), F_OK));
    EXPECT_NE(0, flock(lock, LOCK_EX | LOCK_NB)) << "one channel is still open";
    Close(second);
    EXPECT_EQ(0, flock(lock, LOCK_EX | LOCK_NB)) << "the last one has gone";
    EXPECT_EQ(0, access(mRunDir.Path("kel/user.sock").c_str(), F_OK)) << "not its own to remove";
    EXPECT_EQ(EBUSY, KelLib_AsyncContextOpen(1, &again));
    EXPECT_NE(0, access(mRunDir.Path("kel/async-1.sock").c_str(), F_OK));
    close(lock);
}

// ---- Connections ----------------------------------------------------------------------------------

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
    std::future<int> closed = std::async(std::launch::async, KelProducer_Close, producer);
    EXPECT_TRUE(WaitForEvents(fd, POLLRDHUP)) << "it has ended its side, and waits";
    EXPECT_EQ("kel.user.small", Read(fd, 8192));
    EXPECT_EQ("27", Read(fd, 8192));
    EXPECT_EQ("kel.user.large", Read(fd)) << "what was sent is delivered all the same";
    EXPECT_EQ("", Read(fd));
    EXPECT_TRUE(Events(fd) & POLLHUP);
    EXPECT_EQ(0, KelLib_UserContextCloseCnx(fd));
    EXPECT_EQ(0, closed.get()) << "all of it was taken";
    EXPECT_GT(0, KelLib_UserContextCloseCnx(fd));
    for (const int other : {FdOf(handle), OpenFd(0), mLog.Fd()})
        EXPECT_GT(0, KelLib_UserContextCloseCnx(other)) << "no connection";
    EXPECT_EQ(EINVAL, KelLib_UserContextNewCnx(mHandles[0], &fd));
}

TEST_F(UserChannelTest, AProducerThatIsTurnedAwayLearnsIt)
{
    KelLibHandle *handle = Open(kUser);
    KelProducer *producer;
    ASSERT_EQ(0, KelProducer_Open(KELPRODUCER_USER_CONTEXT, &producer));
    int fd;
    ASSERT_EQ(0, KelLib_UserContextNewCnx(handle, &fd));
    ASSERT_EQ(0, KelProducer_Emit(producer, "kel.user.unread", "%s", "x"));
    EXPECT_EQ(0, KelLib_UserContextCloseCnx(fd));
    EXPECT_EQ(EPIPE, KelProducer_Close(producer));
}

TEST_F(UserChannelTest, BehindTheEndEveryPacketIsLookedAtHoweverManyAreBad)
{
    std::optional<RawProducer> producer;
    const int fd = Accept(producer);
    const int size = 8 << 20; // as many as wait in the socket
    if (setsockopt(producer->Fd(), SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof size) != 0) GTEST_SKIP();
    for (int i = 0; i < 4200; ++i)
        ASSERT_EQ(0, producer->Send(RecordBytes(1)));
    ASSERT_EQ(0, producer->Send(MakeRecord("kel.user.good", "a")));
    producer.reset();
    std::string taken = Read(fd);
    if (taken.empty()) taken = Read(fd); // the bound of one read
    EXPECT_EQ("kel.user.good", taken);
}

TEST_F(UserChannelTest, AnEmptyPacketEndsTheStream)
{
    std::optional<RawProducer> producer;
    const int fd = Accept(producer);
    ASSERT_EQ(0, producer->Send({}));
    ASSERT_EQ(0, producer->Send(MakeRecord("kel.user.late", "a")));
    EXPECT_EQ("", Read(fd));
    EXPECT_TRUE(Events(fd) & POLLHUP);
    EXPECT_EQ("", Read(fd)) << "nothing comes behind the end";
    EXPECT_EQ(EPIPE, producer->Send(MakeRecord("kel.user.late", "a")));
}

TEST_F(UserChannelTest, BadPacketsArePassedOver)
{
    std::optional<RawProducer> producer;
    const int fd = Accept(producer);
    ASSERT_EQ(0, producer->Send(RecordOf(0x10000) + RecordOf(0x10000)));
    ASSERT_EQ(0, producer->Send(RecordBytes(96)));
    ASSERT_EQ(0, producer->Send(MakeRecord("kel.user.good", "a")));
    EXPECT_EQ("kel.user.good", Read(fd, 8192)) << "no larger buffer is asked for either";
    EXPECT_EQ((Lines{"user: dropped 131072 bytes: larger than a batch may be",
                     "user: dropped 96 bytes: record at byte 0: wrong magic"}),
              mLog.Lines());
}

} // namespace
