#include "road.h"

#include "child.h"
#include "load.h"
#include "receiver.h"

#include <array>
#include <kelproducer.h>
#include <kltlibs/rundir.h>
#include <memory>
#include <optional>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

using Clock = std::chrono::steady_clock;
using Record = std::vector<char>;

constexpr int kContext = 0;
constexpr int kBatch = 40; // observations in one datagram: as many as fit the daemon's first buffer
constexpr int kPostedBatch = 16;

// In the order of the table.
enum Measure {
    kUnmatchedCost,
    kUnmatchedRate,
    kBatchedCost,
    kIgnoredCost,
    kIgnoredRate,
    kManyIdsCost,
    kManyIdsFactor,
    kLimitedCost,
    kLimitedRate,
    kPostedCost,
    kPostedRate,
    kPostedBatchCost,
    kPostedBatchFactor,
    kLatencyMedian,
    kLatency99,
    kReady,
    kFirstEvent,
    kResident,
    kLoaded,
    kGrowth,
    kWakeups,
    kListenedIgnored,
    kListenedLimited,
    kMeasures
};
using Taken = std::array<std::optional<double>, kMeasures>; // nothing for what a round has not taken

struct Kind {
    Measure measure;
    const char *what, *unit;
    Expected expected;
};
constexpr Expected AtMostRatio(double ratio) { return {Expected::Of::Ratio, ratio}; }
constexpr Expected AtMost(double figure) { return {Expected::Of::Figure, figure}; }

// clang-format off
const Kind kKinds[] = {
    {kUnmatchedCost, "unmatched observation: processor time", "ns", {}},
    {kUnmatchedRate, "unmatched observations", "1/s", {}},
    {kBatchedCost,   "unmatched, 40 to a datagram: processor time", "ns", AtMostRatio(0.75)},
    {kIgnoredCost,   "ignored observation: processor time", "ns", AtMostRatio(0.45)},
    {kIgnoredRate,   "ignored observations", "1/s", {}},
    {kManyIdsCost,   "ignored, of 2500 identifiers: processor time", "ns", AtMostRatio(0.45)},
    {kManyIdsFactor, "ignored, of 2500 against 25 identifiers", "times", AtMost(1.05)},
    {kLimitedCost,   "rate-limited observation: processor time", "ns", AtMostRatio(0.45)},
    {kLimitedRate,   "rate-limited observations", "1/s", {}},
    {kPostedCost,    "posted event: processor time", "ns", AtMostRatio(0.7)},
    {kPostedRate,    "posted events, up to the limit", "1/s", {}},
    {kPostedBatchCost,   "posted, 16 to a datagram: processor time", "ns", {}},
    {kPostedBatchFactor, "posted, 16 to a datagram against single ones", "times", AtMost(0.85)},
    {kLatencyMedian, "channel to receiver: median", "us", AtMostRatio(1)},
    {kLatency99,     "channel to receiver: 99th percentile", "us", AtMostRatio(1.2)},
    {kReady,         "start to ready", "ms", AtMostRatio(1.05)},
    {kFirstEvent,    "start to first event received", "ms", AtMostRatio(1.5)},
    {kResident,      "resident memory, idle", "KiB", AtMostRatio(1.24)},
    {kLoaded,        "resident memory, behind a burst", "KiB", AtMostRatio(1.3)},
    {kGrowth,        "resident memory, growth under ten times the load", "KiB", AtMost(64)},
    {kWakeups,       "wake-ups in 20 idle seconds", "", AtMost(0)},
    {kListenedIgnored, "ignored, while the journal is listened to", "times", AtMost(1.15)},
    {kListenedLimited, "rate-limited, while the journal is listened to", "times", AtMost(1.15)},
};
// clang-format on
static_assert(std::size(kKinds) == kMeasures);

struct Producer {
    Producer()
    {
        if (KelProducer_Open(kContext, &producer) != 0) throw std::runtime_error("no channel");
    }
    ~Producer() { KelProducer_Close(producer); }
    Producer(const Producer &) = delete;
    Producer &operator=(const Producer &) = delete;

    void Send(const Record &bytes) const
    {
        if (KelProducer_Send(producer, bytes.data(), bytes.size()) != 0)
            throw std::runtime_error("not sent");
    }

    KelProducer *producer = nullptr;
};

// Reads the journal as fast as it comes, from the first entry on.
class Listener {
public:
    Listener()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        if (KltRunDir_Path("keld-journal.sock", address.sun_path, sizeof address.sun_path) != 0 ||
            connect(mFd, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 || Read() <= 0)
            throw std::runtime_error("no journal");
        mReading = std::thread([this] {
            while (Read() > 0) {
            }
        });
    }
    ~Listener()
    {
        shutdown(mFd, SHUT_RDWR);
        mReading.join();
        close(mFd);
    }
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

private:
    ssize_t Read() { return read(mFd, mBytes.data(), mBytes.size()); }

    int mFd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::vector<char> mBytes = std::vector<char>(65536);
    std::thread mReading;
};

// An observation of kRecordBytes with two texts.
Record Observation(const char *id)
{
    Record record(2 * Load::kRecordBytes);
    std::size_t length = 0;
    std::string padding;
    for (int pass = 0; pass < 2; ++pass) { // the second fills up what the first has left
        if (KelRecord_Build(record.data(), record.size(), &length, KELPRODUCER_NOW, id,
                            "Uplink %s was connected to switch %s.", "vmnic2", padding.c_str()) != 0)
            throw std::runtime_error(id);
        if (pass == 0) padding.assign(Load::kRecordBytes - length, 's');
    }
    record.resize(length);
    return record;
}

std::vector<Record> Ignored(int identifiers)
{
    std::vector<Record> records;
    for (int i = 0; i < identifiers; ++i) {
        char id[64];
        std::snprintf(id, sizeof id, Load::kIgnoredIdFormat, i);
        records.push_back(Observation(id));
    }
    return records;
}

struct LoadRecords {
    std::vector<Record> unmatched{Observation(Load::kUnmatchedId)};
    std::vector<Record> batch{Record()};
    std::vector<Record> ignored = Ignored(25), manyIds = Ignored(2500);
    std::vector<Record> posted{Observation(Load::kPostedId)};
    Record postedBatch;

    LoadRecords()
    {
        for (int i = 0; i < kBatch; ++i)
            batch[0].insert(batch[0].end(), unmatched[0].begin(), unmatched[0].end());
        for (int i = 0; i < kPostedBatch; ++i)
            postedBatch.insert(postedBatch.end(), posted[0].begin(), posted[0].end());
    }
};

struct Cost {
    double nanoseconds; // of processor time for each
    double perSecond;
};

double Seconds(std::chrono::nanoseconds time) { return static_cast<double>(time.count()) / 1e9; }

struct Program {
    std::string path;
    const char *argument;
    std::vector<double> Figures::*figures;
};

class Round {
public:
    Round(const Program &program, const RoadOptions &options, const LoadRecords &load,
          const Receiver &receiver)
        : mOptions(options), mLoad(load), mReceiver(receiver),
          mHasJournal(program.figures == &Figures::keld), mStarted(Clock::now()),
          mChild(program.path, program.argument)
    {
        mChild.WaitUntilReady();
        mFigures[kReady] = Seconds(Clock::now() - mStarted) * 1e3;
        mProducer = std::make_unique<Producer>();
    }

    // Everything but the latencies: the rate limit does not leave room for both.
    Taken Costs()
    {
        mProducer->Send(mLoad.posted[0]);
        mReceiver.Take();
        mFigures[kFirstEvent] = Seconds(Clock::now() - mStarted) * 1e3;
        mChild.WaitUntilIdle();
        mFigures[kResident] = static_cast<double>(mChild.ResidentKiB());
        const int count = mOptions.observations;
        Put(Stream(mLoad.unmatched, count), kUnmatchedCost, kUnmatchedRate);
        mFigures[kBatchedCost] = Stream(mLoad.batch, count / kBatch).nanoseconds / kBatch;
        Put(Stream(mLoad.ignored, count), kIgnoredCost, kIgnoredRate);
        mFigures[kManyIdsCost] = Stream(mLoad.manyIds, count).nanoseconds;
        mFigures[kManyIdsFactor] = *mFigures[kManyIdsCost] / *mFigures[kIgnoredCost];
        Put(Post(mLoad.posted[0], Load::kEventsPerWindow - 1, 1), kPostedCost, kPostedRate);
        Put(Stream(mLoad.posted, count / 2), kLimitedCost, kLimitedRate);
        return mFigures;
    }

    // Single ones and batches, together no more than the rate limit leaves room for.
    Taken Batches()
    {
        constexpr int events = Load::kEventsPerWindow / 2 / kPostedBatch * kPostedBatch;
        const Cost single = Post(mLoad.posted[0], events, 1);
        mFigures[kPostedBatchCost] = Post(mLoad.postedBatch, events, kPostedBatch).nanoseconds;
        mFigures[kPostedBatchFactor] = *mFigures[kPostedBatchCost] / single.nanoseconds;
        return mFigures;
    }

    // One observation at a time.
    Taken Latencies()
    {
        std::vector<double> microseconds;
        for (int i = 0; i < Load::kEventsPerWindow; ++i) {
            const auto sent = Clock::now();
            mProducer->Send(mLoad.posted[0]);
            mReceiver.Take();
            microseconds.push_back(Seconds(Clock::now() - sent) * 1e6);
        }
        mFigures[kLatencyMedian] = Median(microseconds);
        mFigures[kLatency99] = Percentile(std::move(microseconds), 99);
        return mFigures;
    }

    // What a tenth of the load has made resident is what all of it needs.
    Taken Growth()
    {
        Costs();
        const std::uint64_t before = mChild.ResidentKiB();
        for (int i = 0; i < 9; ++i)
            for (const auto *records : {&mLoad.unmatched, &mLoad.manyIds, &mLoad.posted})
                Stream(*records, mOptions.observations);
        mFigures[kLoaded] = static_cast<double>(mChild.ResidentKiB());
        mFigures[kGrowth] = *mFigures[kLoaded] - static_cast<double>(before);
        return mFigures;
    }

    Taken Idle()
    {
        mChild.WaitUntilIdle();
        const std::uint64_t before = mChild.Wakeups();
        std::this_thread::sleep_for(std::chrono::duration<double>(mOptions.idleSeconds));
        mFigures[kWakeups] = static_cast<double>(mChild.Wakeups() - before);
        return mFigures;
    }

    // Of the daemon alone: the floor has no journal. In turns, since how often whoever reads log and journal
    // is woken differs much from one stream to the next.
    Taken Listened()
    {
        if (!mHasJournal) return mFigures;
        Post(mLoad.posted[0], Load::kEventsPerWindow, 1);
        double ignored = 0, limited = 0, ignoredHeard = 0, limitedHeard = 0;
        for (int turn = 0; turn < 4; ++turn) {
            ignored += Stream(mLoad.ignored, mOptions.observations).nanoseconds;
            limited += Stream(mLoad.posted, mOptions.observations).nanoseconds;
            const Listener listener;
            ignoredHeard += Stream(mLoad.ignored, mOptions.observations).nanoseconds;
            limitedHeard += Stream(mLoad.posted, mOptions.observations).nanoseconds;
        }
        mFigures[kListenedIgnored] = ignoredHeard / ignored;
        mFigures[kListenedLimited] = limitedHeard / limited;
        return mFigures;
    }

private:
    // Sends count datagrams as fast as they are taken, to the end of all that comes of them.
    Cost Stream(const std::vector<Record> &records, int count)
    {
        return Measured(count, [&] {
            for (int i = 0; i < count; ++i)
                mProducer->Send(records[static_cast<std::size_t>(i) % records.size()]);
        });
    }

    Cost Post(const Record &datagram, int events, int inDatagram)
    {
        return Measured(events, [&] {
            std::thread receiving([&] {
                for (int i = 0; i < events; ++i)
                    mReceiver.Take();
            });
            for (int i = 0; i < events; i += inDatagram)
                mProducer->Send(datagram);
            receiving.join();
        });
    }

    template <class Work> Cost Measured(int count, Work work)
    {
        const auto used = mChild.ProcessorTime();
        const auto start = Clock::now();
        work();
        const auto end = mChild.WaitUntilIdle();
        return {Seconds(mChild.ProcessorTime() - used) * 1e9 / count, count / Seconds(end - start)};
    }

    void Put(Cost cost, Measure nanoseconds, Measure perSecond)
    {
        mFigures[nanoseconds] = cost.nanoseconds;
        mFigures[perSecond] = cost.perSecond;
    }

    const RoadOptions &mOptions;
    const LoadRecords &mLoad;
    const Receiver &mReceiver;
    const bool mHasJournal;
    Taken mFigures{};
    Clock::time_point mStarted;
    Child mChild;
    std::unique_ptr<Producer> mProducer;
};

} // namespace

std::vector<Row> MeasureRoad(const RoadOptions &options)
{
    const LoadRecords load;
    const Receiver receiver;
    std::array<Figures, kMeasures> figures;
    const std::array<Program, 3> programs{{{options.keld, nullptr, &Figures::keld},
                                           {KELD_FLOOR_BINARY, "shape", &Figures::shape},
                                           {KELD_FLOOR_BINARY, nullptr, &Figures::floor}}};
    // A round of each in turns, each first as often as the others.
    const auto take = [&](int rounds, Taken (Round::*part)()) {
        for (int round = 0; round < rounds; ++round)
            for (std::size_t turn = 0; turn < programs.size(); ++turn) {
                const Program &program =
                    programs[(static_cast<std::size_t>(round) + turn) % programs.size()];
                const Taken taken = (Round(program, options, load, receiver).*part)();
                for (std::size_t measure = 0; measure < kMeasures; ++measure)
                    if (taken[measure]) (figures[measure].*program.figures).push_back(*taken[measure]);
            }
    };
    take(options.rounds, &Round::Costs);
    take(options.rounds, &Round::Batches);
    take(options.rounds, &Round::Latencies);
    take(options.rounds, &Round::Listened);
    take(1, &Round::Growth);
    take(1, &Round::Idle);

    std::vector<Row> rows;
    for (const Kind &kind : kKinds)
        rows.push_back(MakeRow(kind.what, kind.unit, figures[kind.measure], kind.expected));
    return rows;
}
