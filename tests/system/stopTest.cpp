// Stopping under full load, whatever the receiver does: always with status 0, and soon.
//
// KELD_STOP_ROUNDS says how often each kind of receiver is tried.

#include "systemTest.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kStopLimit{kSanitized ? 20'000 : 2'000};

int Rounds()
{
    const char *rounds = std::getenv("KELD_STOP_ROUNDS");
    return rounds == nullptr ? 13 : std::atoi(rounds);
}

enum class Receiver { Reads, AcceptsWithoutReading, IsFull, IsAway };

class StopTest : public SystemTest, public testing::WithParamInterface<Receiver> {
protected:
    void SetUp() override
    {
        if (GetParam() != Receiver::Reads) receiver.Stop();
        if (GetParam() == Receiver::AcceptsWithoutReading) receiver.Start();
        if (GetParam() == Receiver::IsFull) receiver.Start(0);
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
        if (GetParam() == Receiver::Reads || GetParam() == Receiver::AcceptsWithoutReading)
            threads.emplace_back([this] {
                std::vector<int> kept;
                while (!stopped) {
                    pollfd waiting{receiver.Fd(), POLLIN, 0};
                    poll(&waiting, 1, 20);
                    if (GetParam() == Receiver::Reads)
                        receiver.DrainRaw();
                    else if (kept.size() < 500)
                        kept.push_back(accept(receiver.Fd(), nullptr, nullptr));
                }
                for (const int fd : kept)
                    close(fd);
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
    std::vector<milliseconds> took;
    for (int round = 0; round < Rounds() && !HasFailure(); ++round) {
        Start(kShippedDaemon);
        Flood();
        const int depth = 3 * (round % 50); // ever deeper into it
        EXPECT_TRUE(WaitUntil([&] { return batchesSent > depth; }));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(0, daemon->Terminate(round % 2 == 0 ? SIGTERM : SIGINT)) << daemon->Output();
        took.push_back(std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - start));
        EndFlood();
        EXPECT_GE(kStopLimit, took.back()) << "round " << round;
        const Texts lines = daemon->Log().LinesWith("Exiting");
        EXPECT_EQ((Texts{"Exiting due to signal.", "Exiting. rc:0"}), lines) << "round " << round;
    }
    std::sort(took.begin(), took.end());
    std::printf("%zu stops: median %lld ms, longest %lld ms\n", took.size(),
                static_cast<long long>(took[took.size() / 2].count()),
                static_cast<long long>(took.back().count()));
}

std::string NameOf(const testing::TestParamInfo<Receiver> &kind)
{
    switch (kind.param) {
    case Receiver::Reads:
        return "Reads";
    case Receiver::AcceptsWithoutReading:
        return "AcceptsWithoutReading";
    case Receiver::IsFull:
        return "IsFull";
    case Receiver::IsAway:
        break;
    }
    return "IsAway";
}

INSTANTIATE_TEST_SUITE_P(Receiver, StopTest,
                         testing::Values(Receiver::Reads, Receiver::AcceptsWithoutReading, Receiver::IsFull,
                                         Receiver::IsAway),
                         NameOf);

} // namespace
