// From the main thread to the agents: subscriptions, records in pieces, and agents that end.

#include "keldDispatch.h"
#include "keldAgent.h"
#include "keldCorrelator.h"
#include "keldLog.h"
#include "keldSignal.h"
#include "logCapture.h"
#include "observation.h"
#include "waitFor.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <string>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::SizeIs;

int Dispatch(std::initializer_list<RecordBytes> records)
{
    RecordBytes batch;
    for (const RecordBytes &record : records)
        batch.insert(batch.end(), record.begin(), record.end());
    return KeldDispatch(KELLIB_USER_CONTEXT, batch.data(), batch.size());
}

RecordBytes LinkDown(const char *nic) { return MakeRecord("kel.net.vmnic.linkstate.down", "%s", nic); }

// ---- Subscriptions ----------------------------------------------------------------------------------

TEST(SubscriptionTest, TenPrefixesTakeWhatLiesBelowThemAndTenExactIdsThemselvesAlone)
{
    KeldSubscription subscription;
    EXPECT_EQ(0, KeldSubscriptionAddExactId(&subscription, "kel.cpu.mce.intr"));
    for (int i = 1; i < 10; ++i) {
        EXPECT_EQ(0, KeldSubscriptionAddDomain(&subscription, "domain" + std::to_string(i)));
        EXPECT_EQ(0, KeldSubscriptionAddExactId(&subscription, "kel.exact" + std::to_string(i)));
    }
    EXPECT_EQ(0, KeldSubscriptionAddDomain(&subscription, "net"));
    EXPECT_EQ(1, KeldSubscriptionAddDomain(&subscription, "domain10"));
    EXPECT_EQ(1, KeldSubscriptionAddExactId(&subscription, "kel.exact10"));
    for (const char *taken :
         {"kel.net.x", "kel.net.vmnic.linkstate.down", "kel.domain9.x", "kel.cpu.mce.intr", "kel.exact9"})
        EXPECT_TRUE(KeldSubscriptionMatches(subscription, taken)) << taken;
    for (const char *left : {"kel.net", "kel.network.x", "kel.ne.x", "net.x", "kel.cpu.mce",
                             "kel.cpu.mce.intr.x", "kel.cpu.mce.int", "", "kel.domain10.x", "kel.exact10"})
        EXPECT_FALSE(KeldSubscriptionMatches(subscription, left)) << left;
}

// ---- Streams ----------------------------------------------------------------------------------------

class StreamTest : public testing::Test {
protected:
    void SetUp() override
    {
        EXPECT_EQ(0, KeldDispatchInit());
        stream = Register({"net"});
    }

    static KeldStream *Register(std::initializer_list<const char *> domains,
                                const char *exactId = "kel.none")
    {
        KeldSubscription subscription;
        for (const char *domain : domains)
            EXPECT_EQ(0, KeldSubscriptionAddDomain(&subscription, domain));
        EXPECT_EQ(0, KeldSubscriptionAddExactId(&subscription, exactId));
        KeldStream *registered = nullptr;
        EXPECT_EQ(0, KeldStreamRegister(nullptr, subscription, &registered));
        return registered;
    }

    // One reading, as an agent does when its pipe is readable, or was read ahead: the record's first
    // argument, "again", "refused", "failed", or "nothing" when it is not readable.
    static std::string Read(KeldStream *stream)
    {
        pollfd readable{stream->readFd.Get(), POLLIN, 0};
        if (!KeldStreamHoldsKel(stream) && poll(&readable, 1, 0) != 1) return "nothing";
        Kel *kel = nullptr;
        bool complete = false;
        const int code = KeldStreamReadKel(stream, &kel, &complete);
        if (code != 0) return code == 1 ? "refused" : "failed";
        if (!complete) return "again";
        const KelPtr owner(kel);
        const char *text = nullptr;
        EXPECT_EQ(0, Kel_GetStringArg(kel, 0, &text));
        return text;
    }

    // Writes the next bytes of the record past the dispatcher.
    void Write(std::size_t bytes)
    {
        ASSERT_EQ(static_cast<ssize_t>(bytes),
                  write(stream->writeFd.Get(), record.data() + written, bytes));
        written += bytes;
    }

    RecordBytes record = LinkDown("vmnic2");
    std::size_t written = 0;
    KeldStream *stream = nullptr;
};
using StreamDeathTest = StreamTest;

TEST_F(StreamTest, EveryMatchingStreamGetsARecordOnce)
{
    KeldStream *storage = Register({"scsi", "net.firewall"});
    KeldStream *nics = Register({"net", "net.vmnic"}, "kel.net.vmnic.linkstate.down");
    EXPECT_EQ(0, Dispatch({LinkDown("vmnic0"), MakeRecord("kel.scsi.device.close", "%s", "naa.1"),
                           LinkDown("vmnic1")}));
    for (KeldStream *each : {stream, nics})
        for (const char *expected : {"vmnic0", "vmnic1", "nothing"})
            EXPECT_EQ(expected, Read(each));
    EXPECT_EQ("naa.1", Read(storage));
    EXPECT_EQ("nothing", Read(storage));

    EXPECT_EQ(0, KeldStreamUnregister(stream));
    EXPECT_EQ(0, Dispatch({LinkDown("vmnic2")}));
    EXPECT_EQ("vmnic2", Read(nics));
}

// More pieces than one write takes. What is written counts, what is taken no longer waits, and what was
// read ahead was not taken.
TEST_F(StreamTest, AMixedBatchReachesEachStreamInItsOrderAndIsCounted)
{
    KeldStream *storage = Register({"scsi"});
    RecordBytes batch;
    for (int i = 0; i < 200; ++i)
        for (const RecordBytes &each :
             {LinkDown(std::to_string(i).c_str()), MakeRecord("kel.nobody.x", " "),
              MakeRecord("kel.scsi.device.close", "%s", std::to_string(i).c_str())})
            batch.insert(batch.end(), each.begin(), each.end());
    EXPECT_EQ(0, KeldDispatch(KELLIB_USER_CONTEXT, batch.data(), batch.size()));
    EXPECT_EQ(400U, KeldDispatchWaiting());
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(std::to_string(i), Read(stream));
        ASSERT_EQ(std::to_string(i), Read(storage));
        ASSERT_EQ(2U * (199U - static_cast<unsigned>(i)), KeldDispatchWaiting());
    }
    EXPECT_EQ("nothing", Read(stream));
}

TEST_F(StreamTest, AFullPipeKeepsNothingFromOthersAndSplitsNoRecord)
{
    KeldStream *storage = Register({"scsi"});
    const std::string text(60'000, 'x'); // a pipe holds one of them and a part of the next
    const RecordBytes large = MakeRecord("kel.net.large", "%s", text.c_str());
    std::thread dispatching([&] {
        EXPECT_EQ(0, Dispatch({large, large, large, MakeRecord("kel.scsi.device.close", "%s", "naa.1")}));
    });
    EXPECT_TRUE(WaitUntil([&] { return Read(storage) == "naa.1"; }));
    for (int taken = 0; taken < 3;) {
        const std::string read = Read(stream);
        EXPECT_THAT(read, testing::AnyOf("again", "nothing", text));
        if (read == text) ++taken;
    }
    dispatching.join();
    EXPECT_EQ(0U, KeldDispatchWaiting());
}

// A page of a burst that was taken is not there any more, and has none of its bytes when it is back.
TEST(ReadAheadTest, WhatABurstTookIsGivenBack)
{
    KeldReadAhead ahead;
    ASSERT_TRUE(ahead.Make());
    const auto room = ahead.Room();
    constexpr std::size_t kBurst = 65'536;
    std::fill_n(room.begin(), kBurst, std::byte{'x'});
    ahead.Add(kBurst);
    ahead.Take(kBurst - 1);
    EXPECT_EQ(std::byte{'x'}, *ahead.First());
    ahead.Take(1);
    unsigned char resident = 1;
    ASSERT_EQ(0, mincore(&room[kBurst / 2], 1, &resident));
    EXPECT_EQ(0, resident & 1);
    EXPECT_EQ(room.data(), ahead.Room().data());
}

TEST_F(StreamTest, RecordInThreePiecesBecomesOneKel)
{
    Write(10);
    EXPECT_EQ("again", Read(stream));
    Write(30); // the header's end, and what lies behind it
    EXPECT_EQ("again", Read(stream));
    EXPECT_EQ("nothing", Read(stream));
    Write(record.size() - written);
    EXPECT_EQ(0, Dispatch({LinkDown("vmnic3")}));
    EXPECT_EQ("vmnic2", Read(stream));
    EXPECT_EQ("vmnic3", Read(stream));
}

TEST_F(StreamTest, RefusedRecordEndsWithItsStream)
{
    record[8] = std::byte{'X'}; // of the magic
    Write(record.size());
    EXPECT_EQ("refused", Read(stream));
    EXPECT_EQ(0, KeldStreamUnregister(stream));
}

TEST_F(StreamDeathTest, EndOfFileEndsTheDaemon)
{
    Write(10);
    EXPECT_EQ("again", Read(stream));
    (void)stream->writeFd.Close();
    EXPECT_DEATH(Read(stream), "Keld - Panic: EOF trying to read 22 bytes from stream 0x");
}

// Such records are never made: the library refuses them before they get here.
TEST_F(StreamDeathTest, Kept_ARecordWithoutABodyIsTakenForTheEndOfFile)
{
    const std::uint32_t total = 32;
    std::memcpy(record.data() + 16, &total, sizeof total);
    Write(total);
    EXPECT_DEATH(Read(stream), "Keld - Panic: EOF trying to read 0 bytes from stream 0x");
}

// ---- Agents -----------------------------------------------------------------------------------------

class AgentTest : public testing::Test {
protected:
    void SetUp() override { EXPECT_EQ(0, KeldDispatchInit()); }
    void TearDown() override { KeldAgentStopAll(); }

    static void StartSteady()
    {
        KeldAgentStart([] { KeldCorrelatorRun("Steady", "steady", KeldCorrelatorLogKel, {}); });
    }
    // The steady agent gets what is sent now.
    void ExpectSteadyServed(const char *id)
    {
        EXPECT_EQ(0, Dispatch({MakeRecord(id, " ")}));
        EXPECT_TRUE(log.WaitForLine(std::string("us: [") + id + "]")) << log.Raw();
    }

    LogCapture log;
};

TEST_F(AgentTest, ThirtyTwoAgentsAreStartedAndTheNextIsRefused)
{
    static std::atomic<int> started{0};
    for (int i = 0; i < 33; ++i)
        KeldAgentStart([] { ++started; });
    KeldAgentAwaitAll();
    EXPECT_EQ(32, started);
    EXPECT_THAT(log.Lines(), ElementsAre("Failed to start agent. Already reached max limit of 32 agents."));
}

// ---- Between two observations that were read together -------------------------------------------------

int wakePipe[2];
std::string happened;
void TellWake() { happened += " woken"; }

TEST_F(AgentTest, TheWakePipeIsLookedAtBetweenTwoObservations)
{
    ASSERT_EQ(0, pipe(wakePipe));
    KeldAgentStart([] {
        const auto handle = [](Kel *) {
            if (happened.empty()) (void)!write(wakePipe[1], "x", 1);
            happened += " handled";
            if (happened.ends_with("woken handled")) KeldLog("all are handled\n");
        };
        KeldCorrelatorRunWithFds("Net", "net", handle, {}, TellWake, wakePipe, 1);
    });
    KeldAgentAwaitAll();
    EXPECT_EQ(0, Dispatch({LinkDown("vmnic0"), LinkDown("vmnic1"), LinkDown("vmnic2")}));
    EXPECT_TRUE(log.WaitForLine("all are handled"));
    KeldAgentStopAll();
    EXPECT_EQ(" handled handled woken handled", happened); // of what comes together, the pipe is the first
}

TEST_F(AgentTest, AnAgentOfADaemonThatLeavesIsCancelledBetweenTwoObservations)
{
    KeldAgentStart([] {
        const auto handle = [](Kel *) {
            KeldSetStopping();
            KeldLog("handled\n");
        };
        KeldCorrelatorRun("Net", "net", handle, {});
    });
    KeldAgentAwaitAll();
    EXPECT_EQ(0, Dispatch({LinkDown("vmnic0"), LinkDown("vmnic1"), LinkDown("vmnic2")}));
    EXPECT_TRUE(log.WaitForLine("handled"));
    KeldAgentStopAll();
    EXPECT_THAT(log.LinesWith("handled"), SizeIs(1));
    EXPECT_EQ(2U, KeldDispatchWaiting());
}

// The main thread waits in the agent's full pipe, half a record written, when the agent ends.
TEST_F(AgentTest, AnAgentThatEndsBehindAFullPipeHoldsNobodyUp)
{
    KeldAgentStart([] {
        KeldAgentRun("Doomed", {"doomed"}, {}, [](KeldAgent *agent) {
            Kel *kel = nullptr;
            EXPECT_EQ(0, KeldAgentWaitForKel(agent, &kel));
            Kel_Free(kel);
            EXPECT_TRUE(WaitUntil([agent] {
                pollfd writable{agent->stream->writeFd.Get(), POLLOUT, 0};
                return poll(&writable, 1, 0) == 0;
            }));
            throw 22;
        });
    });
    StartSteady();
    KeldAgentAwaitAll();

    const RecordBytes large = MakeRecord("kel.doomed.large", "%s", std::string(100'000, 'x').c_str());
    EXPECT_EQ(0, Dispatch({MakeRecord("kel.doomed.first", " "), large, large}));
    ExpectSteadyServed("kel.steady.behind");
    EXPECT_TRUE(log.WaitForLine("Unknown exception in agent function(0x")) << log.Raw();
    EXPECT_THAT(log.LinesWith("Done cleaning up agent."), SizeIs(1));
    EXPECT_EQ(0, Dispatch({large, large})); // nobody's any more
    ExpectSteadyServed("kel.steady.after");
}

} // namespace
