// The trace service, in this process: lines go in through its two hooks, clients read its socket.

#include "keldTrace.h"

#include "eventSink.h"
#include "handClock.h"
#include "keldPling.h"
#include "logCapture.h"
#include "observation.h"
#include "runDir.h"
#include "traceClient.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <kltlibs/kelrecord.h>
#include <linux/sockios.h>
#include <malloc.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <thread>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

constexpr std::size_t kHistoryBytes = 131072;
constexpr std::size_t kMegabyte = std::size_t{1} << 20;

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
        threads = CountEntries("/proc/self/task");
        descriptors = CountEntries("/proc/self/fd");
    }

    TraceClient Connect()
    {
        TraceClient client(runDir.Path("keld-trace.sock"));
        KeldTraceAccept(listener);
        return client;
    }

    // From here on the client's serve thread runs, and the client misses no line.
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
        constexpr std::size_t kAround = sizeof "1772366400.000005000,IN,1772366400000000,kel.x,,\"\"\n" - 1;
        In(MakeRecord("kel.x", "%s", std::string(bytes - kAround, 'x').c_str()));
    }

    // No thread or descriptor is left, but for the ends of those that still are connected here.
    void AwaitNoClients(std::size_t connected = 0)
    {
        EXPECT_TRUE(WaitUntil([&] {
            return CountEntries("/proc/self/task") == threads &&
                   CountEntries("/proc/self/fd") == descriptors + connected;
        })) << CountEntries("/proc/self/task")
            << " threads, " << CountEntries("/proc/self/fd") << " descriptors";
    }

    RunDir runDir;
    LogCapture log;
    HandClock &clock = *new HandClock; // outlives the clients' threads
    int listener = -1;
    std::size_t threads = 0, descriptors = 0;
};

// Sets the type code of one argument in a record.
RecordBytes WithType(RecordBytes record, std::uint32_t argument, std::uint32_t type)
{
    std::memcpy(record.data() + KelRecord_Word(record.data(), 24) + 16 * argument, &type, sizeof type);
    return record;
}

// ---- Lines ----------------------------------------------------------------------------------------

TEST_F(TraceTest, ObservationsAndEventsAreOneLineEachWithEveryKindOfArgument)
{
    const EventSink sink;
    TraceClient client = ConnectAndSkipHistory();
    const char *volatile none = nullptr; // the compiler would see the null otherwise
    const std::string now = "1772366400.000005000,", in = now + "IN,1772366400000000,";
    In(MakeRecord("kel.net.vmnic.linkstate.down", " "));
    EXPECT_EQ(in + "kel.net.vmnic.linkstate.down,", client.Line());
    In(MakeRecord("kel.x", "%d %ld %u %lu", -2147483647 - 1, -9223372036854775807L - 1, 4294967295U,
                  18446744073709551615UL));
    EXPECT_EQ(in + "kel.x,,-2147483648,-9223372036854775808,4294967295,18446744073709551615",
              client.Line());
    In(MakeRecord("kel.x", "%s %s %s %s", "a\"b", none, "", "\"\""));
    EXPECT_EQ(in + "kel.x,,\"a\"\"b\",\"(null)\",\"\",\"\"\"\"\"\"", client.Line());
    In(WithType(WithType(WithType(MakeRecord("kel.x", "%d %d %d %d", 1, 2, 3, 4), 0, 0), 1, 5), 2, 7));
    EXPECT_EQ(in + "kel.x,,???,???,???,4", client.Line());

    KeldPostEvent(0, KeldEventClass::Audit, "@&!*@*@(nox.audit.net.firewall.port.hooked)Port %s by %u.",
                  "vmnic0", 12U);
    EXPECT_EQ(now + "OUT,1772366400000005,nox.audit.net.firewall.port.hooked,,\"vmnic0\",12",
              client.Line());
    RecordBytes odd(1);
    const RecordBytes record = MakeRecord("kel.x", "%s %lu", "odd", 5UL);
    odd.insert(odd.end(), record.begin(), record.end());
    KeldTraceIn(odd.data() + 1); // wherever it lies
    EXPECT_EQ(in + "kel.x,,\"odd\",5", client.Line());
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

    TraceClient client = ConnectAndSkipHistory();
    In(MakeRecord("kel.x", "%s", std::string(kHistoryBytes / 2, '"').c_str()));
    EXPECT_LE(kHistoryBytes, client.Line().size()) << "a line larger than the history reaches clients only";
    EXPECT_TRUE(Connect().History().empty());
}

TEST_F(TraceTest, NoLineIsLostOrDoubledBetweenHistoryAndLiveLines)
{
    std::atomic<bool> done{false};
    std::vector<std::thread> tracers;
    for (int thread = 0; thread < 2; ++thread)
        tracers.emplace_back([&, thread] {
            for (int number = 0; !done; ++number)
                In(MakeRecord("kel.x", "%d %d", thread, number));
        });
    for (int round = 0; round < 20; ++round) {
        TraceClient client = Connect();
        std::vector<std::string> lines = client.History();
        for (int live = 0; live < 3000; ++live)
            lines.push_back(client.Line());
        int next[2] = {-1, -1};
        for (const std::string &line : lines) {
            int thread = -1, number = -1;
            ASSERT_EQ(2, std::sscanf(line.c_str(), "%*[^,],IN,%*[^,],kel.x,,%d,%d", &thread, &number))
                << line;
            ASSERT_TRUE(next[thread] < 0 || next[thread] == number)
                << next[thread] << " is missing: " << line;
            next[thread] = number + 1;
        }
    }
    done = true;
    for (std::thread &tracer : tracers)
        tracer.join();
}

TEST_F(TraceTest, AClientOnTheDescriptorsOfOneThatIsGoneGetsTheWholeHistory)
{
    In(MakeRecord("kel.before", " "));
    Connect();
    AwaitNoClients();
    In(MakeRecord("kel.between", " "));

    TraceClient client = Connect(); // the same two descriptors
    In(MakeRecord("kel.live", " "));
    EXPECT_THAT(client.Line(), HasSubstr(",kel.before,"));
    EXPECT_THAT(client.Line(), HasSubstr(",kel.between,"));
    const std::vector<std::string> rest{client.Line(), client.Line()};
    EXPECT_THAT(rest, testing::UnorderedElementsAre("", HasSubstr(",kel.live,")));
}

// ---- Clients that do not behave -------------------------------------------------------------------

TEST_F(TraceTest, WhatAClientSendsMeansNothing)
{
    TraceClient client = ConnectAndSkipHistory();
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(1, send(client.Fd(), "x", 1, MSG_NOSIGNAL));
        int unread = 1;
        ASSERT_TRUE(WaitUntil([&] { return ioctl(client.Fd(), SIOCOUTQ, &unread) == 0 && unread == 0; }));
    }
    In(MakeRecord("kel.x", " "));
    EXPECT_THAT(client.Line(), HasSubstr(",kel.x,"));
}

TEST_F(TraceTest, ClientThatDoesNotReadDelaysNobodyAndIsDisconnected)
{
    {
        TraceClient stuck = ConnectAndSkipHistory(), reader = ConnectAndSkipHistory();
        const auto trace = [&] {
            InOfBytes(1024);
            EXPECT_EQ(1023U, reader.Line().size());
        };
        std::size_t traced = 0;
        for (; traced < 64 * kMegabyte && log.Lines().empty() && !HasFailure(); traced += 1024)
            trace();
        EXPECT_LT(16 * kMegabyte, traced);
        EXPECT_GT(18 * kMegabyte, traced) << "the socket's own buffer is small";
        while (stuck.Line().size() == 1023)
            continue;
        EXPECT_EQ("(end)", stuck.Line());

        const std::size_t used = mallinfo2().uordblks;
        for (std::size_t more = 0; more < 40 * kMegabyte && !HasFailure(); more += 1024)
            trace();
        EXPECT_GT(used + kMegabyte, mallinfo2().uordblks) << "what a client that is gone leaves is bounded";
        EXPECT_THAT(log.Lines(), ElementsAre(testing::MatchesRegex(
                                     "Trace client [0-9]+ does not read; disconnecting it\\.")));
    }
    AwaitNoClients();
}

TEST_F(TraceTest, WhatASlowClientHasTakenAtLastIsGivenBack)
{
    TraceClient slow = ConnectAndSkipHistory();
    const std::size_t used = mallinfo2().uordblks;
    constexpr std::size_t kLines = 8 * kMegabyte / 1024;
    for (std::size_t i = 0; i < kLines; ++i)
        InOfBytes(1024);
    for (std::size_t i = 0; i < kLines; ++i)
        ASSERT_EQ(1023U, slow.Line().size());
    EXPECT_TRUE(WaitUntil([&] { return mallinfo2().uordblks < used + kMegabyte; }));
}

TEST_F(TraceTest, ClientsThatComeAndGoLeaveNothingBehind)
{
    for (int i = 0; i < 32; ++i)
        InOfBytes(4096);
    for (int i = 0; i < 1000; ++i) {
        TraceClient client = Connect();
        if (i % 5 == 1) {
            EXPECT_LE(99U, client.Line().size());
        }
        if (i % 5 == 2) {
            EXPECT_EQ(5, write(client.Fd(), "hello", 5));
        }
        if (i % 5 == 3) {
            shutdown(client.Fd(), SHUT_WR); // and never reads: the writer may be stuck
            InOfBytes(100'000);
        }
        if (i % 5 == 4) {
            shutdown(client.Fd(), SHUT_RD);
            InOfBytes(100);
            AwaitNoClients(1);
        }
    }
    AwaitNoClients();
    EXPECT_FALSE(Connect().History().empty());
}

} // namespace
