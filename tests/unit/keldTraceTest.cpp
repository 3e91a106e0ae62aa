// The trace service, in this process: lines go in through its two hooks, clients read its socket.

#include "keldTrace.h"

#include "eventSink.h"
#include "handClock.h"
#include "keldOwn.h"
#include "keldPling.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"
#include "traceClient.h"
#include "waitFor.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kltlibs/kelrecord.h>
#include <kltlibs/ktime.h>
#include <malloc.h>
#include <poll.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <thread>
#include <vector>

using testing::ElementsAre;
using testing::StartsWith;

namespace {

constexpr std::size_t kHistoryBytes = 131072;

std::size_t CountEntries(const char *directory)
{
    const auto entries = std::filesystem::directory_iterator(directory);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

class TraceTest : public testing::Test {
protected:
    TraceTest()
    {
        clock.Set(HandClock::kStart, 5);
        KTime_SetSource(&clock);
        listener = KeldTraceOpen(nullptr);
        EXPECT_LE(0, listener);
        std::thread([] {}).join(); // a sanitizer's own thread comes with the first one, and stays
    }

    TraceClient Connect()
    {
        TraceClient client(runDir.Path("keld-trace.sock"));
        KeldTraceAccept(listener);
        return client;
    }

    // Behind this, the client's serve thread runs and it misses no line.
    TraceClient ConnectAndSkipHistory()
    {
        TraceClient client = Connect();
        client.History();
        return client;
    }

    static void In(const RecordBytes &record) { KeldTraceIn(record.data()); }

    // A line of so many bytes, whatever they are.
    static void InOfBytes(std::size_t bytes)
    {
        static const std::size_t kAround =
            std::strlen("1772366400.000005000,IN,1772366400000000,kel.x,,\"\"\n");
        In(MakeRecord("kel.x", "%s", std::string(bytes - kAround, 'x').c_str()));
    }

    void AwaitNoClients(std::size_t threads, std::size_t descriptors)
    {
        EXPECT_TRUE(WaitUntil([&] {
            return CountEntries("/proc/self/task") == threads &&
                   CountEntries("/proc/self/fd") == descriptors;
        })) << CountEntries("/proc/self/task")
            << " threads, " << CountEntries("/proc/self/fd") << " descriptors";
    }

    RunDir runDir;
    LogCapture log;
    HandClock &clock = *new HandClock; // outlives the clients' threads
    int listener = -1;
};

// Sets the type code of one argument in a record.
RecordBytes WithType(RecordBytes record, std::uint32_t argument, std::uint32_t type)
{
    std::memcpy(record.data() + KelRecord_Word(record.data(), 24) + 16 * argument, &type, sizeof type);
    return record;
}

// ---- Lines ----------------------------------------------------------------------------------------

TEST_F(TraceTest, ObservationIsOneLineWithEveryKindOfArgument)
{
    TraceClient client = ConnectAndSkipHistory();
    const char *volatile none = nullptr; // the compiler would see the null otherwise
    In(MakeRecord("kel.net.vmnic.linkstate.down", "%s", "vmnic2"));
    In(MakeRecord("kel.x", " "));
    In(MakeRecord("kel.x", "%d %ld %u %lu", -2147483647 - 1, -9223372036854775807L - 1, 4294967295U,
                  18446744073709551615UL));
    In(MakeRecord("kel.x", "%d %ld %s", 7, -1L, "a\"b"));
    In(MakeRecord("kel.x", "%s %s %s", none, "", "\"\""));

    const std::string now = "1772366400.000005000,IN,1772366400000000,";
    EXPECT_EQ(now + "kel.net.vmnic.linkstate.down,,\"vmnic2\"", client.Line());
    EXPECT_EQ(now + "kel.x,", client.Line());
    EXPECT_EQ(now + "kel.x,,-2147483648,-9223372036854775808,4294967295,18446744073709551615",
              client.Line());
    EXPECT_EQ(now + "kel.x,,7,-1,\"a\"\"b\"", client.Line());
    EXPECT_EQ(now + "kel.x,,\"(null)\",\"\",\"\"\"\"\"\"", client.Line());
}

TEST_F(TraceTest, OtherTypeCodesHaveNoValue)
{
    TraceClient client = ConnectAndSkipHistory();
    const RecordBytes record = MakeRecord("kel.x", "%d %d %d %d", 1, 2, 3, 4);
    In(WithType(WithType(WithType(record, 0, 0), 1, 5), 2, 7));
    EXPECT_EQ("1772366400.000005000,IN,1772366400000000,kel.x,,???,???,???,4", client.Line());
}

TEST_F(TraceTest, EventIsOneLineWhereverItsRecordLies)
{
    const EventSink sink;
    TraceClient client = ConnectAndSkipHistory();
    KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.audit.net.firewall.port.hooked)Port %s by %u.",
                  "vmnic0", 12U);
    EXPECT_EQ("1772366400.000005000,OUT,1772366400000005,nox.audit.net.firewall.port.hooked,,\"vmnic0\",12",
              client.Line());

    for (std::size_t offset = 1; offset < 8; ++offset) {
        RecordBytes moved(offset);
        const RecordBytes record = MakeRecord("kel.x", "%s %lu", "odd", 5UL);
        moved.insert(moved.end(), record.begin(), record.end());
        KeldTraceIn(moved.data() + offset);
        EXPECT_EQ("1772366400.000005000,IN,1772366400000000,kel.x,,\"odd\",5", client.Line());
    }
}

TEST_F(TraceTest, LineWithAnUnreadableTextIsLeftOut)
{
    TraceClient client = ConnectAndSkipHistory();
    In(WithType(MakeRecord("kel.broken", "%d", 99), 0, 6));
    In(MakeRecord("kel.after", " "));
    EXPECT_THAT(client.Line(), testing::EndsWith(",kel.after,"));
    EXPECT_THAT(log.Lines(), ElementsAre("Invalid argument in kel with ID kel.broken"));
}

// ---- History --------------------------------------------------------------------------------------

TEST_F(TraceTest, HistoryHoldsWhatFitsAndLosesItsOldestLinesFirst)
{
    InOfBytes(127);
    for (std::size_t i = 0; i < kHistoryBytes / 128 - 1; ++i)
        InOfBytes(128);
    EXPECT_EQ(1024U, Connect().History().size()) << "one byte is left";
    InOfBytes(128);
    const std::vector<std::string> full = Connect().History();
    EXPECT_EQ(1024U, full.size()) << "the shorter line has gone, no byte is left";
    EXPECT_EQ(127U, full.front().size());
    InOfBytes(129);
    EXPECT_EQ(1023U, Connect().History().size()) << "two lines make room for one byte";
}

TEST_F(TraceTest, LineLargerThanTheHistoryReachesClientsOnly)
{
    TraceClient client = ConnectAndSkipHistory();
    In(MakeRecord("kel.x", "%s", std::string(kHistoryBytes - 200, '"').c_str()));
    EXPECT_LT(kHistoryBytes * 2 - 400, client.Line().size());
    EXPECT_TRUE(Connect().History().empty());
}

TEST_F(TraceTest, NoLineIsLostOrDoubledBetweenHistoryAndLiveLines)
{
    std::atomic<bool> done{false};
    constexpr unsigned kEnough = 3000;
    std::thread tracer([&] {
        for (unsigned number = 0; !done; ++number)
            In(MakeRecord("kel.x", "%u", number));
    });
    const auto number = [](const std::string &line) {
        return std::stoul(line.substr(line.rfind(',') + 1));
    };
    for (int round = 0; round < 20; ++round) {
        TraceClient client = Connect();
        std::vector<std::string> lines = client.History();
        for (unsigned live = 0; live < kEnough; ++live)
            lines.push_back(client.Line());
        ASSERT_THAT(lines.back(), StartsWith("1772366400."));
        const std::size_t first = number(lines.front());
        for (std::size_t i = 0; i < lines.size(); ++i)
            ASSERT_EQ(first + i, number(lines[i])) << "line " << i << " of " << lines.size();
    }
    done = true;
    tracer.join();
}

TEST_F(TraceTest, Kept_EntryOfAClientThatIsGoneStaysUntilItsDescriptorIsUsedAgain)
{
    const std::size_t threads = CountEntries("/proc/self/task"),
                      descriptors = CountEntries("/proc/self/fd");
    In(MakeRecord("kel.before", " "));
    Connect();
    AwaitNoClients(threads, descriptors);
    In(MakeRecord("kel.between", " "));

    TraceClient client = Connect(); // the same two descriptors
    In(MakeRecord("kel.live", " "));
    EXPECT_THAT(client.Line(), testing::HasSubstr(",kel.before,"));
    EXPECT_THAT(client.Line(), testing::HasSubstr(",kel.between,"));
    const std::vector<std::string> rest{client.Line(), client.Line()};
    EXPECT_THAT(rest, testing::UnorderedElementsAre("", testing::HasSubstr(",kel.live,")));
}

// ---- Clients that do not behave -------------------------------------------------------------------

TEST_F(TraceTest, ClientThatDoesNotReadDelaysNobodyAndIsDisconnected)
{
    const std::size_t threads = CountEntries("/proc/self/task"),
                      descriptors = CountEntries("/proc/self/fd");
    constexpr std::size_t kMegabyte = std::size_t{1} << 20;
    {
        TraceClient stuck = ConnectAndSkipHistory();
        TraceClient reader = ConnectAndSkipHistory();
        std::size_t traced = 0;
        for (; traced < 64 * kMegabyte && log.Lines().empty(); traced += 1024) {
            InOfBytes(1024);
            ASSERT_EQ(1023U, reader.Line().size()) << "after " << traced;
        }
        EXPECT_LT(16 * kMegabyte, traced);
        EXPECT_GT(18 * kMegabyte, traced) << "the socket's own buffer is small";
        ASSERT_THAT(log.Lines(), ElementsAre(testing::MatchesRegex(
                                     "Trace client [0-9]+ does not read; disconnecting it\\.")));
        while (stuck.Line().size() == 1023) {
        }
        EXPECT_EQ("(end)", stuck.Line());

        const std::size_t used = mallinfo2().uordblks;
        for (std::size_t more = 0; more < 40 * kMegabyte; more += 1024) {
            InOfBytes(1024);
            ASSERT_EQ(1023U, reader.Line().size());
        }
        EXPECT_GT(used + kMegabyte, mallinfo2().uordblks) << "what a client that is gone leaves is bounded";
        EXPECT_EQ(1U, log.Lines().size());
    }
    AwaitNoClients(threads, descriptors);
}

TEST_F(TraceTest, ClientsThatComeAndGoLeaveNothingBehind)
{
    const std::size_t threads = CountEntries("/proc/self/task"),
                      descriptors = CountEntries("/proc/self/fd");
    for (int i = 0; i < 32; ++i)
        InOfBytes(4096);
    for (int i = 0; i < 1000; ++i) {
        TraceClient client = Connect();
        if (i % 4 == 1) {
            EXPECT_LE(4095U, client.Line().size());
        }
        if (i % 4 == 2) {
            EXPECT_EQ(5, write(client.Fd(), "hello", 5));
        }
        if (i % 4 == 3) {
            shutdown(client.Fd(), SHUT_WR); // and never reads: the writer may be stuck
            InOfBytes(100'000);
        }
        if (i % 100 == 99) AwaitNoClients(threads, descriptors + 1);
    }
    AwaitNoClients(threads, descriptors);
    TraceClient client = Connect();
    EXPECT_FALSE(client.History().empty());
}

TEST_F(TraceTest, ClientWhoseReadingSideIsGoneIsDisconnected)
{
    const std::size_t threads = CountEntries("/proc/self/task"),
                      descriptors = CountEntries("/proc/self/fd");
    TraceClient client = ConnectAndSkipHistory();
    shutdown(client.Fd(), SHUT_RD);
    In(MakeRecord("kel.x", " "));
    AwaitNoClients(threads, descriptors + 1);
}

TEST_F(TraceTest, WithoutDescriptorsAConnectionIsTurnedAwayAndTheNextOneServed)
{
    std::vector<UniqueFd> all;
    TraceClient turnedAway(runDir.Path("keld-trace.sock"));
    rlimit limit{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = 64;
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &limit));
    for (int fd; (fd = open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
        all.emplace_back(fd);

    pollfd readable{.fd = listener, .events = POLLIN, .revents = 0};
    EXPECT_EQ(1, poll(&readable, 1, 0));
    KeldTraceAccept(listener);
    EXPECT_EQ(0, poll(&readable, 1, 0)) << "the main loop would spin";
    EXPECT_THAT(log.Lines(), ElementsAre("Trace accept() failed: Too many open files"));
    EXPECT_EQ("(end)", turnedAway.Line());

    all.clear();
    In(MakeRecord("kel.x", " "));
    EXPECT_EQ(1U, Connect().History().size());
}

// ---- The listening socket -------------------------------------------------------------------------

TEST_F(TraceTest, PathThatDoesNotFitIsRefused)
{
    const std::string fits = runDir.Path(std::string(107 - runDir.Path().size() - 1, 't'));
    std::ofstream(fits) << "left over";
    const UniqueFd other(KeldTraceOpen(fits.c_str()));
    EXPECT_LE(0, other.Get());
    TraceClient client(fits);

    EXPECT_GT(0, KeldTraceOpen((fits + "t").c_str()));
    EXPECT_EQ(ENAMETOOLONG, errno);
    EXPECT_GT(0, KeldTraceOpen(runDir.Path("none/trace.sock").c_str()));
    EXPECT_EQ(ENOENT, errno);
}

} // namespace
