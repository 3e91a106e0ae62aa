// Trace clients of every speed, while far more passes than any of them may leave waiting.

#include "systemTest.h"
#include "traceClient.h"

#include <atomic>
#include <cstdlib>
#include <deque>
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr std::size_t kMegabyte = std::size_t{1} << 20;
constexpr std::size_t kHistoryBytes = 131072;
constexpr int kBatch = 10;

// "2/1042" at the end of a line, and whether an event has it.
struct Serial {
    bool out = false;
    int producer = -1;
    int number = -1;

    explicit Serial(const std::string &line)
    {
        out = line.find(",OUT,") != line.npos;
        const std::size_t start = line.find_last_of('"', line.empty() ? 0 : line.size() - 2);
        if (start == line.npos || line.back() != '"') return;
        char *slash = nullptr;
        const int first = static_cast<int>(std::strtol(line.c_str() + start + 1, &slash, 10));
        if (*slash != '/') return;
        producer = first;
        number = std::atoi(slash + 1);
    }
};

class TraceLoadTest : public SystemTest {
protected:
    TraceLoadTest()
    {
        Start(kShippedDaemon);
        const TraceClient client = ConnectAndSkipHistory(); // served: by now all its threads run
        threadsBefore = daemon->ThreadCount() - 2;
        descriptorsBefore = daemon->DescriptorCount() - 1;
    }

    TraceClient Connect() const { return TraceClient(host.Path("keld-trace.sock")); }

    // Behind this, it misses no line.
    TraceClient ConnectAndSkipHistory() const
    {
        TraceClient client = Connect();
        client.History();
        return client;
    }

    // One observation whose line ends in its serial. A report becomes an event with the same ending;
    // the others are received by an agent that ignores them.
    static void Append(RecordBytes &batch, int producer, int number, bool report,
                       const std::string &padding)
    {
        const std::string serial = std::to_string(producer) + "/" + std::to_string(number);
        const RecordBytes record = MakeRecord(report ? "kel.external.error" : "kel.cpu.load", "%s %s %s",
                                              "acme-raid", padding.c_str(), serial.c_str());
        batch.insert(batch.end(), record.begin(), record.end());
    }

    void ExpectNoClients()
    {
        EXPECT_TRUE(WaitUntil([&] {
            return daemon->ThreadCount() == threadsBefore && daemon->DescriptorCount() == descriptorsBefore;
        })) << daemon->ThreadCount()
            << " threads instead of " << threadsBefore << ", " << daemon->DescriptorCount()
            << " descriptors instead of " << descriptorsBefore;
    }

    std::size_t threadsBefore = 0;
    std::size_t descriptorsBefore = 0;
};

// ---- Eight clients --------------------------------------------------------------------------------

constexpr int kProducers = 4;
constexpr int kContexts[kProducers] = {2, 13, kUser, kUser};
constexpr int kPerProducer = 25'000;
constexpr int kReportEvery = 125; // 800 events: within what the daemon posts in a minute
constexpr int kLines = kProducers * (kPerProducer + kPerProducer / kReportEvery);

// What one client has been given: every line once, and in order.
class LineCheck {
public:
    // False, with a failure, when the line is not the one that has to come next.
    bool Take(const std::string &line)
    {
        const Serial serial(line);
        if (serial.producer < 0 || serial.producer >= kProducers) {
            ADD_FAILURE() << "after " << mCount << " lines: " << line;
            return false;
        }
        int &next = (serial.out ? mNextOut : mNextIn)[serial.producer];
        if (serial.number != next) {
            ADD_FAILURE() << next << " is missing or late: " << line;
            return false;
        }
        next += serial.out ? kReportEvery : 1;
        mDigest = mDigest * 31 + std::hash<std::string>()(line);
        mLast.push_back(line);
        mLastBytes += line.size() + 1;
        for (; mLastBytes > kHistoryBytes; mLast.pop_front())
            mLastBytes -= mLast.front().size() + 1;
        ++mCount;
        return true;
    }

    int Count() const { return mCount; }
    std::size_t Digest() const { return mDigest; } // the same for clients that got the same
    std::vector<std::string> Last() const { return {mLast.begin(), mLast.end()}; }

private:
    std::atomic<int> mCount = 0;
    int mNextIn[kProducers] = {};
    int mNextOut[kProducers] = {};
    std::size_t mDigest = 0;
    std::deque<std::string> mLast; // as much as the history holds
    std::size_t mLastBytes = 0;
};

TEST_F(TraceLoadTest, EightClientsOfMixedSpeedGetEveryLineOrAreDisconnected)
{
    const std::string padding(500, '-');
    constexpr int kFast = 4, kSlow = 2;
    constexpr int kAheadMax = 5'000; // of the slowest fast client: they are to keep up on any machine
    const std::size_t memoryBefore = daemon->ResidentBytes();

    TraceClient stalled[] = {ConnectAndSkipHistory(), ConnectAndSkipHistory()};
    LineCheck received[kFast + kSlow];
    std::atomic<int> sent = 0;
    std::atomic<bool> failed = false;
    const auto slowestFast = [&] {
        int lines = kLines;
        for (int i = 0; i < kFast; ++i)
            lines = std::min(lines, received[i].Count());
        return lines;
    };

    std::vector<std::thread> threads;
    for (int i = 0; i < kFast + kSlow; ++i)
        threads.emplace_back([&, i, client = ConnectAndSkipHistory()]() mutable {
            while (!failed && received[i].Count() < kLines) {
                // A slow one takes seven lines of eight, and the rest when the fast ones have all theirs.
                if (i >= kFast)
                    WaitUntil([&] {
                        const int fast = slowestFast();
                        return failed || fast == kLines || received[i].Count() < fast / 8 * 7;
                    });
                if (!received[i].Take(client.Line())) failed = true;
            }
        });
    for (int producer = 0; producer < kProducers; ++producer)
        threads.emplace_back([&, producer, out = RawProducer(kContexts[producer])]() mutable {
            for (int number = 0; !failed && number < kPerProducer; number += kBatch) {
                WaitUntil([&] { return failed || sent - slowestFast() < kAheadMax; });
                RecordBytes batch;
                for (int i = number; i < number + kBatch; ++i)
                    Append(batch, producer, i, i % kReportEvery == 0, padding);
                EXPECT_EQ(0, out.Send(batch));
                sent += kBatch;
            }
        });
    for (std::thread &thread : threads)
        thread.join();

    for (const LineCheck &client : received) {
        EXPECT_EQ(kLines, client.Count());
        EXPECT_EQ(received[0].Digest(), client.Digest()) << "not the same lines, or not in the same order";
    }
    EXPECT_THAT(
        daemon->Log().LinesWith("does not read"),
        testing::Each(testing::MatchesRegex("Trace client [0-9]+ does not read; disconnecting it\\.")));
    EXPECT_EQ(std::size(stalled), daemon->Log().LinesWith("does not read").size());
    for (TraceClient &client : stalled) {
        LineCheck beginning;
        std::string line = client.Line();
        for (std::string next; (next = client.Line()) != "(end)"; line = next)
            ASSERT_TRUE(beginning.Take(line));
        EXPECT_GT(kLines / 10, beginning.Count()) << "no more than fits the socket"; // line may be a piece
    }

    // All that may wait at once: 16 MiB for each stalled client, an eighth of all that passed for each
    // slow one, what the fast ones lag behind; a sixth more for the strings around the text.
    const std::size_t textBytes = static_cast<std::size_t>(received[0].Count()) * (padding.size() + 100);
    const std::size_t waitingMax =
        (std::size(stalled) * 16 * kMegabyte + kSlow * textBytes / 8 + kFast * kAheadMax * 600) * 7 / 6;
    if (!kSanitized) {
        EXPECT_GT(memoryBefore + waitingMax + 4 * kMegabyte, daemon->PeakResidentBytes());
    }
    RecordProperty("peakBytes", std::to_string(daemon->PeakResidentBytes()));

    const std::vector<std::string> history = Connect().History();
    EXPECT_EQ(received[0].Last(), history) << "the history is the end of what passed, to its bound";
    ExpectNoClients();
}

// ---- Coming and going -----------------------------------------------------------------------------

TEST_F(TraceLoadTest, ThousandClientsThatComeAndGoLoseNoLineAndLeaveNothingBehind)
{
    std::atomic<bool> done = false;
    std::thread load([&] {
        RawProducer out(7);
        for (int number = 0; !done; number += kBatch) {
            RecordBytes batch;
            for (int i = number; i < number + kBatch; ++i)
                Append(batch, 0, i, false, "");
            EXPECT_EQ(0, out.Send(batch));
        }
    });
    // The first serial of the history, and how many lines follow it without a gap, the blank one left out.
    const auto expectNoGap = [](TraceClient client, int liveLines) {
        std::vector<std::string> lines = client.History();
        for (; liveLines > 0; --liveLines)
            lines.push_back(client.Line());
        const int first = Serial(lines.front()).number;
        for (int i = 0; i < static_cast<int>(lines.size()); ++i)
            ASSERT_EQ(first + i, Serial(lines[static_cast<std::size_t>(i)]).number)
                << "line " << i << " of " << lines.size();
    };

    for (int i = 0; i < 1000 && !HasFailure(); ++i) {
        TraceClient client = Connect();
        switch (i % 5) {
        case 0: // gone before it is served
            break;
        case 1:
            EXPECT_NE("(end)", client.Line());
            break;
        case 2:
            EXPECT_EQ(5, write(client.Fd(), "hello", 5));
            EXPECT_NE("(end)", client.Line());
            break;
        case 3: // never reads: its writer may be stuck
            shutdown(client.Fd(), SHUT_WR);
            break;
        case 4:
            expectNoGap(std::move(client), i % 100 == 99 ? 5000 : 50);
            break;
        }
    }
    ExpectNoClients(); // with the load still on
    done = true;
    load.join();
    EXPECT_TRUE(daemon->Log().LinesWith("does not read").empty());
    if (!kSanitized) {
        EXPECT_GT(64 * kMegabyte, daemon->PeakResidentBytes());
    }
    RecordProperty("peakBytes", std::to_string(daemon->PeakResidentBytes()));
}

} // namespace
