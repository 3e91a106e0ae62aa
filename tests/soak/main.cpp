// The soak: a host's whole traffic at full speed, with trace clients, listeners to the journal and
// producers that come and go and a receiver that goes away, while a ledger says what must come out, and the
// journal's own books what has.
//
//     soak_tests [--seed N] [--seconds N] [--hand-clock]
//
// The seed makes the traffic and is printed first: the same number sends the same again, as far as the
// scheduler allows. With the clock moved by hand, minutes pass in seconds, so that rate limit windows
// open, and retries come due and are abandoned, hundreds of times.

#include "daemon.h"
#include "eventSink.h"
#include "journalReader.h"
#include "ledger.h"
#include "runDir.h"
#include "traceClient.h"
#include "traffic.h"
#include "waitFor.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <chrono>
#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <optional>
#include <random>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

std::uint64_t seed = std::random_device()();
int seconds = 10;
bool handClock = false;

constexpr std::size_t kMegabyte = std::size_t{1} << 20;
constexpr off_t kLogBytesBehindMax = 16 * kMegabyte;     // by how much the ledger may be behind
constexpr std::uint64_t kObservationsBehindMax = 10'000; // by how much the listener may be
constexpr std::uint64_t kLifeMax = 20'000;               // observations of one producer
constexpr std::uint64_t kBatchMax = 40;

class Soak : public testing::Test {
protected:
    Soak()
    {
        for (const std::string n : {"0", "1", "2", "3"}) {
            host.Host("net/portgroups/portGroup-" + n, "vSwitch0");
            host.HostDirectory("kernel/nodes/net/pNics/nic-" + n);
            host.Host("storage/paths/path-" + n, "device-" + n);
            host.Host("storage/devices/device-" + n + "/pathRedundancy", n);
            host.Host("storage/devices/device-" + n + "/partitions/1", "datastore" + n);
        }
        daemon.emplace(handClock ? kHandClockDaemon : kShippedDaemon);
        EXPECT_TRUE(daemon->WaitUntilReady());
        TraceClient client = Connect();
        client.History(); // served: by now all threads run
        journal.emplace();
        EXPECT_TRUE(Visit(*journal, 1)); // the hello
        journal->seen = [this](const JournalEntry &) { journaled = journal->ledger.Total().observations; };
        threadsBefore = daemon->ThreadCount() - 2;
        descriptorsBefore = daemon->DescriptorCount() - 1;
    }

    TraceClient Connect() const { return TraceClient(host.Path("keld-trace.sock")); }
    bool Failed() const { return ledger.HasFailed() || HasFailure(); }

    // ---- What goes in: one producer after the other

    void Produce(bool throughConnections, Dice dice)
    {
        while (!producersStop && !Failed()) {
            ProducerLife &life = ledger.Begin();
            const auto context = static_cast<int>(dice.Below(KELPRODUCER_ASYNC_CONTEXTS));
            RawProducer out(throughConnections ? KELPRODUCER_USER_CONTEXT : context);
            const Serial end = life.next + 1 + dice.Below(kLifeMax);
            while (life.next < end && !producersStop) {
                WaitUntil([&] {
                    return producersStop || (booksAreUpToDate && sent < journaled + kObservationsBehindMax);
                });
                SendBatch(out, life, std::min(end, life.next + 1 + dice.Below(kBatchMax)));
            }
            // What a connection was given waits in it, before it is accepted too: one more than the daemon
            // serves at a time would be closed with all that is in it.
            EXPECT_TRUE(!throughConnections || WaitUntil([&] {
                int waiting = 0;
                return Failed() || (ioctl(out.Fd(), SIOCOUTQ, &waiting) == 0 && waiting == 0);
            }));
        }
    }

    void SendBatch(RawProducer &out, ProducerLife &life, Serial end)
    {
        RecordBytes batch;
        const Serial first = life.next.exchange(end);
        for (Serial serial = first; serial < end; ++serial) {
            const RecordBytes record = traffic.Make(serial).record;
            batch.insert(batch.end(), record.begin(), record.end());
        }
        EXPECT_EQ(0, out.Send(batch));
        sent += end - first;
    }

    // ---- What comes out

    void KeepBooks()
    {
        std::string unread; // of the log: a line that is not whole yet
        off_t at = 0;
        for (bool away = false;;) {
            if (receiverAway != away) (away = !away) ? receiver.Hide() : receiver.Start();
            const bool last = closing;
            // Events first: what is in the log by then was written before they came.
            const std::vector<EventRecord> events = receiver.Drain();
            const bool grown = ReadLog(at, unread);
            for (const EventRecord &event : events)
                ledger.TakeEvent(event);
            if (grown || !events.empty()) continue;
            if (quiet && ledger.Owed().empty()) even = true;
            if (last) return;
            WaitUntil([] { return false; }, milliseconds(1));
        }
    }

    // All that is new in the log; its memory is given back.
    bool ReadLog(off_t &at, std::string &unread)
    {
        struct stat log {};
        fstat(daemon->Log().Fd(), &log);
        booksAreUpToDate = log.st_size - at < kLogBytesBehindMax;
        const off_t from = at;
        for (std::string piece(kMegabyte, '\0'); at < log.st_size;) {
            const ssize_t got = pread(daemon->Log().Fd(), piece.data(), piece.size(), at);
            if (got <= 0) break;
            at += got;
            unread.append(piece, 0, static_cast<std::size_t>(got));
            const std::size_t whole = unread.rfind('\n') + 1;
            ledger.TakeLog(std::string_view(unread).substr(0, whole));
            unread.erase(0, whole);
        }
        fallocate(daemon->Log().Fd(), FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, from, at - from);
        return at != from;
    }

    // ---- Who looks on, one visit after the other

    void Watch(Dice dice)
    {
        for (; !watchersStop && !Failed(); ++visits) {
            TraceClient client = Connect();
            if (dice.Below(10) == 0) { // looks away for a while, and leaves
                const std::uint64_t until = sent + dice.Below(10'000);
                WaitUntil([&] { return watchersStop || sent >= until; });
            } else if (!ReadLines(client, dice.Below(20'000))) {
                ++turnedAway;
            }
        }
    }

    // Of each producer, whatever a client sees has no gap and nothing twice. False when it is disconnected.
    bool ReadLines(TraceClient &client, std::uint64_t count)
    {
        std::map<Serial, Serial> next; // by producer
        for (; count > 0 && !watchersStop; --count) {
            const std::string line = client.Line();
            if (line == "(end)") return false;
            const std::size_t in = line.find(",IN,");
            if (in == line.npos) continue;
            const Serial serial = std::strtoull(line.c_str() + in + 4, nullptr, 10) - kObservationTime;
            Serial &place = next.emplace(serial >> kSerialBits, serial).first->second;
            if (place++ != serial) {
                ADD_FAILURE() << "seen where " << ToTag(place - 1) << " was next: " << line;
                return true;
            }
        }
        return true;
    }

    // Reads that many entries, or to the end; the books of it must be right.
    bool Visit(JournalReader &reader, std::uint64_t entries)
    {
        std::uint64_t read = 0;
        reader.seen = [&](const JournalEntry &) { ++read; };
        const bool whole = reader.ReadUntil([&] { return read >= entries || watchersStop; });
        reader.seen = nullptr;
        for (const std::string &fault : reader.ledger.Faults())
            ADD_FAILURE() << "journal: " << fault;
        return whole;
    }

    // Comes and goes without a word, and looks away for a while now and then.
    void Listen(Dice dice)
    {
        for (; !watchersStop && !Failed(); ++listened) {
            JournalReader reader;
            Visit(reader, 1 + dice.Below(50'000));
            if (dice.Below(4) != 0) continue;
            const std::uint64_t until = sent + dice.Below(400'000);
            WaitUntil([&] { return watchersStop || sent >= until; });
            Visit(reader, 1 + dice.Below(50'000));
            missing += reader.ledger.Total().missing;
        }
    }

    // ---- What happens meanwhile: the receiver goes and comes, and the clock is moved

    void Steer(Clock::time_point end)
    {
        for (Dice dice{seed}; Clock::now() < end && !Failed();) {
            WaitUntil([&] { return Failed(); }, milliseconds(50 + dice.Below(150)));
            if (handClock) daemon->Advance(1 + dice.Below(90));
            if (dice.Below(receiverAway && !handClock ? 6 : 20) == 0) receiverAway = !receiverAway;
            memory.push_back(daemon->ResidentBytes());
        }
    }

    RunDir host;
    Traffic traffic{KELD_CATALOGUE_FILE, seed};
    Ledger ledger{traffic};
    EventSink receiver; // the books' thread's
    std::optional<Daemon> daemon;
    std::optional<JournalReader> journal; // from the first observation to the last
    std::size_t threadsBefore = 0, descriptorsBefore = 0;
    std::vector<std::size_t> memory;

    std::atomic<bool> producersStop = false, watchersStop = false, receiverAway = false;
    std::atomic<bool> quiet = false, even = false, closing = false; // of the books
    std::atomic<bool> booksAreUpToDate = true;
    std::atomic<std::uint64_t> sent = 0, journaled = 0, visits = 0, turnedAway = 0, listened = 0,
                               missing = 0;
};

TEST_F(Soak, EverythingComesOutEven)
{
    const auto begin = Clock::now();
    std::jthread books([this] { KeepBooks(); });
    std::jthread journalBooks([this] { EXPECT_TRUE(journal->ReadToTheEnd()); });
    std::vector<std::jthread> watching, producing;
    watching.emplace_back([this] { Listen({seed + 4000}); });
    for (std::uint64_t i = 0; i < 2; ++i) {
        watching.emplace_back([this, i] { Watch({seed + 1000 + i}); });
        producing.emplace_back([this, i] { Produce(false, {seed + 2000 + i}); });
        producing.emplace_back([this, i] { Produce(true, {seed + 3000 + i}); });
    }
    Steer(begin + std::chrono::seconds(seconds));
    const std::chrono::duration<double> took = Clock::now() - begin;

    watchersStop = true;
    watching.clear();
    producersStop = true;
    producing.clear();
    receiverAway = false;
    quiet = true;
    WaitUntil([&] { return Failed() || even; });
    EXPECT_TRUE(WaitUntil([&] {
        return Failed() ||
               (daemon->ThreadCount() == threadsBefore && daemon->DescriptorCount() == descriptorsBefore);
    })) << fmt::format("{} threads instead of {}, {} descriptors instead of {}", daemon->ThreadCount(),
                       threadsBefore, daemon->DescriptorCount(), descriptorsBefore);
    const std::size_t memoryAfter = daemon->ResidentBytes();
    EXPECT_EQ(0, daemon->Terminate()) << daemon->Output();
    closing = true;
    books.join();
    journalBooks.join();

    EXPECT_EQ("", ledger.Owed());
    const Ledger::Counts &total = ledger.Total();
    const JournalLedger::Sums &told = journal->ledger.Total();
    EXPECT_THAT(journal->ledger.Faults(), testing::IsEmpty());
    EXPECT_EQ(told.handed, told.fates + told.lost);
    EXPECT_EQ(0U, told.missing);
    EXPECT_EQ(sent, told.observations);
    EXPECT_EQ(total.posted + total.dropped, told.events);
    EXPECT_GE(total.disconnected, turnedAway);
    const auto half = memory.begin() + static_cast<std::ptrdiff_t>(memory.size() / 2 + 1);
    const std::size_t level = *std::max_element(memory.begin(), half);
    EXPECT_TRUE(kSanitized || memoryAfter < level + 8 * kMegabyte + total.waitedMost * 2048);
    fmt::print("{} observations, {:.0f} a second, taken in {} times; {} visits of trace clients\n"
               "{} events posted, {} dropped by the rate limit, {} delivered, {} queued, of which {} were "
               "sent again and {} abandoned, {} waiting at most\nresident: {} KiB at most in the first "
               "half, {} at "
               "the end\n",
               sent.load(), static_cast<double>(sent) / took.count(), total.takenIn, visits.load(),
               total.posted, total.dropped, total.delivered, total.queued, total.resent, total.abandoned,
               total.waitedMost, level / 1024, memoryAfter / 1024);
    fmt::print("journal: {} of {} handed, {} fates, {} lost, {} entries missing; {} other listeners, which "
               "missed {}\n",
               told.handed, told.observations, told.fates, told.lost, told.missing, listened.load(),
               missing.load());
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
    fmt::print("seed {}; again with: {} --seed {} --seconds {}{}\n", seed, argv[0], seed, seconds,
               handClock ? " --hand-clock" : "");
    std::fflush(stdout);
    return RUN_ALL_TESTS();
}
