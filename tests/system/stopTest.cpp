// Stopping under full load, whatever the receiver does: always with status 0, and soon.
//
// KELD_STOP_ROUNDS says how often each kind of receiver is tried.

#include "systemTest.h"
#include "unixSocket.h"

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <kltlibs/uniquefd.h>
#include <poll.h>
#include <sys/socket.h>
#include <thread>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kStopLimit{kSanitized ? 20'000 : 2'000};

int Rounds()
{
    const char *rounds = std::getenv("KELD_STOP_ROUNDS");
    return rounds == nullptr ? 13 : std::atoi(rounds);
}

struct Receiver {
    const char *name;
    int backlog; // -1: it is away
    enum { Reads, Accepts, DoesNothing } does;
    bool allElseIsStuck = false; // the log, and a trace client
};
std::ostream &operator<<(std::ostream &out, const Receiver &kind) { return out << kind.name; }

class StopTest : public SystemTest, public testing::WithParamInterface<Receiver> {
protected:
    void SetUp() override
    {
        receiver.Stop();
        if (GetParam().backlog >= 0) receiver.Start(GetParam().backlog);
    }

    // Lets three producers send without pause, and serves the receiver, until the daemon is stopped.
    void Flood()
    {
        for (const int context : {2, 13, kUser})
            threads.emplace_back([this, producer = RawProducer(context)]() mutable {
                RecordBytes batch;
                for (int i = 0; i < 40; ++i) {
                    const RecordBytes record = Report("controller battery low");
                    batch.insert(batch.end(), record.begin(), record.end());
                }
                while (producer.Send(batch) == 0)
                    ++batchesSent;
            });
        if (GetParam().does == Receiver::DoesNothing) return;
        threads.emplace_back([this] {
            std::vector<UniqueFd> kept;
            while (!stopped) {
                pollfd waiting{receiver.Fd(), POLLIN, 0};
                poll(&waiting, 1, 20);
                if (GetParam().does == Receiver::Reads)
                    receiver.DrainRaw();
                else if (kept.size() < 500)
                    kept.emplace_back(accept(receiver.Fd(), nullptr, nullptr));
            }
        });
    }

    void EndFlood()
    {
        stopped = true;
        for (std::thread &thread : threads)
            thread.join();
        threads.clear();
        stopped = false;
        batchesSent = 0;
    }

    std::vector<std::thread> threads;
    std::atomic<bool> stopped = false;
    std::atomic<int> batchesSent = 0;
};

TEST_P(StopTest, UnderFullLoadEndsSoonWithStatusZero)
{
    for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
        std::vector<UniqueFd> stuck;
        Texts environment;
        if (GetParam().allElseIsStuck) {
            stuck.push_back(BindDatagramSocket(host.Path("log")));
            environment.push_back("KELD_LOG_SOCKET=" + host.Path("log"));
        }
        Start(kShippedDaemon, {}, environment);
        if (GetParam().allElseIsStuck) stuck.push_back(ConnectTo(host.Path("keld-trace.sock")));
        Flood();
        EXPECT_TRUE(WaitUntil([&] { return batchesSent > 3 * (round % 50); })); // ever deeper into it
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, daemon->Terminate(round % 2 == 0 ? SIGTERM : SIGINT)) << daemon->Output();
        EXPECT_GE(kStopLimit, std::chrono::steady_clock::now() - start) << "round " << round;
        EndFlood();
        if (!GetParam().allElseIsStuck) {
            const Texts lines = daemon->Log().LinesWith("Exiting");
            EXPECT_EQ((Texts{"Exiting due to signal.", "Exiting. rc:0"}), lines) << "round " << round;
        }
        EXPECT_FALSE(std::filesystem::exists(host.Path("kel/async-0.sock")));
    }
}

INSTANTIATE_TEST_SUITE_P(Receiver, StopTest,
                         testing::Values(Receiver{"Reads", EventSink::kBacklog, Receiver::Reads},
                                         Receiver{"Accepts", EventSink::kBacklog, Receiver::Accepts},
                                         Receiver{"IsFull", 0, Receiver::DoesNothing},
                                         Receiver{"IsAway", -1, Receiver::DoesNothing},
                                         Receiver{"IsStuckAsAllElse", 0, Receiver::DoesNothing, true}),
                         testing::PrintToStringParamName());

} // namespace
