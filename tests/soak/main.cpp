// The soak: a host's whole traffic at full speed, with trace clients and producers that come and go and
// a receiver that goes away, while a ledger says what must come out.
//
//     soak_tests [--seed N] [--seconds N] [--hand-clock]
//
// The seed makes the traffic and is printed first: the same number sends the same again, as far as the
// scheduler allows. With the clock moved by hand, minutes pass in seconds, so that rate limit windows
// open, and retries come due and are abandoned, hundreds of times.

#include "daemon.h"
#include "ledger.h"
#include "runDir.h"
#include "soakReceiver.h"
#include "traceClient.h"
#include "traffic.h"
#include "waitFor.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <random>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>
#include <unordered_map>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::uint64_t seed = std::random_device()();
int seconds = 10;
bool handClock = false;

constexpr std::size_t kMegabyte = std::size_t{1} << 20;
constexpr off_t kLogBytesBehindMax = 16 * kMegabyte; // by how much the ledger may be behind
constexpr int kBatchMax = 40;

class Soak : public testing::Test {
protected:
    Soak()
    {
        for (const char *number : {"0", "1", "2", "3"}) {
            const std::string n = number;
            host.Host("net/portgroups/PG-" + n, "vSwitch0");
            host.HostDirectory("kernel/nodes/net/pNics/vmnic" + n);
            host.Host("storage/paths/hba1:C0:T0:L" + n, "naa.6000" + n);
            host.Host("storage/devices/naa.6000" + n + "/pathRedundancy", n);
            host.Host("storage/devices/naa.6000" + n + "/partitions/1", "datastore" + n);
        }
        receiver.emplace();
        daemon.emplace(handClock ? kHandClockDaemon : kShippedDaemon);
        EXPECT_TRUE(daemon->WaitUntilReady());
        TraceClient client = Connect();
        client.History(); // served: by now all threads run
        threadsBefore = daemon->ThreadCount() - 2;
        descriptorsBefore = daemon->DescriptorCount() - 1;
    }

    TraceClient Connect() const { return TraceClient(host.Path("keld-trace.sock")); }
    bool Failed() const { return ledger.HasFailed() || HasFailure(); }

    // ---- What goes in

    void Produce(bool throughConnections, std::uint64_t diceSeed)
    {
        Dice dice(diceSeed);
        while (!producersStop && !Failed()) {
            const std::uint32_t producer = ++producers;
            const auto life = ledger.Begin(producer);
            {
                RawProducer out(throughConnections
                                    ? KELPRODUCER_USER_CONTEXT
                                    : static_cast<int>(dice.Below(KELPRODUCER_ASYNC_CONTEXTS)));
                while (life->sent < life->script.size() && !producersStop) {
                    WaitUntil([&] { return producersStop || logBytesBehind < kLogBytesBehindMax; });
                    SendBatch(out, producer, *life, 1 + dice.Below(kBatchMax));
                }
                if (throughConnections) AwaitServed(out);
            }
            life->ended = true;
        }
    }

    // What a connection was given waits in it, before it is accepted too: one more than the daemon serves
    // at a time would be closed with all that is in it.
    void AwaitServed(const RawProducer &out) const
    {
        EXPECT_TRUE(WaitUntil([&] {
            int waiting = 0;
            return Failed() || (ioctl(out.Fd(), SIOCOUTQ, &waiting) == 0 && waiting == 0);
        }));
    }

    void SendBatch(RawProducer &out, std::uint32_t producer, ProducerLife &life, std::uint64_t count)
    {
        RecordBytes batch;
        const std::uint32_t first = life.sent;
        const auto end =
            static_cast<std::uint32_t>(std::min<std::uint64_t>(first + count, life.script.size()));
        for (std::uint32_t number = first; number < end; ++number)
            traffic.Append(batch, life.script[number], {producer, number});
        life.sent = end;
        EXPECT_EQ(0, out.Send(batch));
        sent += end - first;
    }

    // ---- What comes out

    void KeepBooks()
    {
        std::string text;
        off_t at = 0;
        auto settled = Clock::now();
        while (true) {
            const bool last = ledgerStop;
            // Events first: what is in the log by then was written before they came.
            const std::vector<EventRecord> events = receiver->Take();
            const bool idle = !ReadLog(at, text) && events.empty();
            for (const EventRecord &event : events)
                ledger.TakeEvent(event);
            if (last && idle) return;
            if (idle || Clock::now() - settled > milliseconds(500)) {
                ledger.Settle();
                settled = Clock::now();
            }
            if (idle) WaitUntil([] { return false; }, milliseconds(1));
        }
    }

    // All that is in the log, and gives the memory of what was read back.
    bool ReadLog(off_t &at, std::string &text)
    {
        const int fd = daemon->Log().Fd();
        struct stat log {};
        fstat(fd, &log);
        const off_t from = at;
        logBytesBehind = log.st_size - at;
        while (at < log.st_size) {
            const std::size_t kept = text.size();
            const auto wanted = static_cast<std::size_t>(std::min<off_t>(log.st_size - at, kMegabyte));
            text.resize(kept + wanted);
            const ssize_t got = pread(fd, text.data() + kept, wanted, at);
            text.resize(kept + static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
            at += std::max<ssize_t>(got, 0);
            const std::size_t whole = text.rfind('\n') + 1;
            ledger.TakeLog(std::string_view(text).substr(0, whole));
            text.erase(0, whole);
            fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, from, at - from);
        }
        return at != from;
    }

    // ---- Who looks on

    // One visit after the other. Of each producer, whatever a client sees has no gap and nothing twice.
    void Watch(std::uint64_t diceSeed)
    {
        Dice dice(diceSeed);
        for (; !watchersStop && !Failed(); ++visits) {
            TraceClient client = Connect();
            if (dice.Below(10) == 0) { // looks away for a while, and leaves
                const std::uint64_t until = sent + dice.Below(10'000);
                WaitUntil([&] { return watchersStop || sent >= until; });
                continue;
            }
            std::unordered_map<std::uint32_t, std::uint32_t> next;
            for (std::uint64_t lines = dice.Below(20'000); lines > 0 && !watchersStop; --lines) {
                const std::string line = client.Line();
                if (line == "(end)") {
                    ++turnedAway;
                    break;
                }
                const std::size_t in = line.find(",IN,");
                if (in == line.npos) continue;
                const Serial serial =
                    Serial::FromTimestamp(std::strtoull(line.c_str() + in + 4, nullptr, 10));
                const auto [place, isFirst] = next.emplace(serial.producer, serial.number);
                ASSERT_EQ(place->second, serial.number) << line;
                ++place->second;
            }
        }
    }

    // The receiver goes and comes, and the clock is moved.
    void Steer(Clock::time_point end)
    {
        Dice dice(seed);
        while (Clock::now() < end && !Failed()) {
            const milliseconds tick(50 + dice.Below(150));
            WaitUntil([&] { return Failed(); }, tick);
            if (handClock) daemon->Advance(1 + dice.Below(90));
            if (receiver->IsAway() ? dice.Below(handClock ? 20 : 6) == 0 : dice.Below(20) == 0)
                receiver->IsAway() ? receiver->ComeBack() : receiver->GoAway();
            memory.push_back(daemon->ResidentBytes());
        }
    }

    RunDir host;
    Traffic traffic{seed};
    Ledger ledger{traffic};
    std::optional<SoakReceiver> receiver;
    std::optional<Daemon> daemon;
    std::size_t threadsBefore = 0, descriptorsBefore = 0;
    std::vector<std::size_t> memory;

    std::atomic<bool> producersStop = false, watchersStop = false, ledgerStop = false;
    std::atomic<std::uint32_t> producers = 0;
    std::atomic<std::uint64_t> sent = 0, visits = 0, turnedAway = 0;
    std::atomic<off_t> logBytesBehind = 0;
};

TEST_F(Soak, EverythingComesOutEven)
{
    const auto begin = Clock::now();
    std::thread books([this] { KeepBooks(); });
    std::vector<std::thread> watching, producing;
    for (std::uint64_t i = 0; i < 2; ++i) {
        watching.emplace_back([this, i] { Watch(seed + 1000 + i); });
        producing.emplace_back([this, i] { Produce(false, seed + 2000 + i); });
        producing.emplace_back([this, i] { Produce(true, seed + 3000 + i); });
    }
    Steer(begin + std::chrono::seconds(seconds));
    const std::chrono::duration<double> took = Clock::now() - begin;

    watchersStop = true;
    for (std::thread &thread : watching)
        thread.join();
    producersStop = true;
    for (std::thread &thread : producing)
        thread.join();
    if (receiver->IsAway()) receiver->ComeBack();
    const std::uint64_t settled = ledger.Settled();
    WaitUntil([&] { return Failed() || (ledger.IsEven() && ledger.Settled() > settled + 1); });
    EXPECT_TRUE(WaitUntil([&] {
        return Failed() ||
               (daemon->ThreadCount() == threadsBefore && daemon->DescriptorCount() == descriptorsBefore);
    })) << daemon->ThreadCount()
        << " threads instead of " << threadsBefore << ", " << daemon->DescriptorCount()
        << " descriptors instead of " << descriptorsBefore;
    const std::size_t memoryAfter = daemon->ResidentBytes();
    EXPECT_EQ(0, daemon->Terminate()) << daemon->Output();
    ledgerStop = true;
    books.join();

    EXPECT_EQ("", ledger.Unsettled());
    EXPECT_GE(ledger.Disconnected(), turnedAway);
    const auto half = memory.begin() + static_cast<std::ptrdiff_t>(memory.size() / 2);
    const std::size_t level = *std::max_element(memory.begin(), half + 1);
    if (!kSanitized) {
        EXPECT_GT(level + 8 * kMegabyte, memoryAfter);
    }
    // The limit itself: 1000 in each minute, and one more for each agent that looked at the same moment.
    if (!handClock) {
        EXPECT_GE((static_cast<std::uint64_t>(took.count()) / 60 + 2) * (1000 + kAgents), ledger.Posted());
    }
    if (ledger.Dropped() > 0) {
        EXPECT_LE(1000U, ledger.Posted());
    }

    std::printf(
        "%llu observations of %u producers in %.1f s, %.0f a second; %llu visits of trace clients\n%s\n"
        "resident: %zu KiB at most in the first half, %zu KiB at the end\n",
        static_cast<unsigned long long>(sent), producers.load(), took.count(),
        static_cast<double>(sent) / took.count(), static_cast<unsigned long long>(visits),
        ledger.Summary().c_str(), level / 1024, memoryAfter / 1024);
}

} // namespace

int main(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    CLI::App app{"Runs a host's whole traffic through the daemon and checks what comes out."};
    app.add_option("--seed", seed, "makes the traffic; random when not given");
    app.add_option("--seconds", seconds, "how long it goes on");
    app.add_flag("--hand-clock", handClock, "with the clock moved by hand, minutes in seconds");
    CLI11_PARSE(app, argc, argv);
    std::printf("seed %llu; again with: %s --seed %llu --seconds %d%s\n",
                static_cast<unsigned long long>(seed), argv[0], static_cast<unsigned long long>(seed),
                seconds, handClock ? " --hand-clock" : "");
    std::fflush(stdout);
    return RUN_ALL_TESTS();
}
