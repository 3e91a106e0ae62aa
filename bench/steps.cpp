#include "steps.h"

#include "bareSteps.h"
#include "load.h"

#include <algorithm>
#include <benchmark/benchmark.h>
#include <kelValidate.h>
#include <keldCorrelator.h>
#include <keldDispatch.h>
#include <keldDomain.h>
#include <keldDomains.h>
#include <keldLog.h>
#include <keldOwn.h>
#include <keldTrace.h>
#include <kelproducer.h>
#include <kltlibs/kthread.h>
#include <kltlibs/msgfmt.h>

namespace {

using Body = void (*)();

// ---- The observation that all steps are about ---------------------------------------------------------

constexpr char kFormat[] = "Uplink %s was connected to switch %s.";
constexpr char kSwitch[] = "DvsPortset-0, the switch of the machines behind the second rack";

const std::vector<char> &Observation()
{
    static const std::vector<char> bytes = [] {
        std::vector<char> record(1024);
        std::size_t length = 0;
        KelRecord_Build(record.data(), record.size(), &length, 1772366400000000, Load::kPostedId, kFormat,
                        "vmnic2", kSwitch);
        record.resize(length);
        return record;
    }();
    return bytes;
}
const char *Record() { return Observation().data(); }
std::size_t Length() { return Observation().size(); }
const void *Area() { return KelRecord_ArgumentArea(Record()); }

void *CopyOfRecord() { return std::memcpy(std::malloc(Length()), Record(), Length()); }

// ---- The daemon's steps and the bare ones ---------------------------------------------------------------

void BuildRecord()
{
    static char buffer[1024];
    std::size_t length = 0;
    KelRecord_Build(buffer, sizeof buffer, &length, KELPRODUCER_NOW, Load::kPostedId, kFormat, "vmnic2",
                    kSwitch);
    benchmark::DoNotOptimize(length);
}

void Validate()
{
    KelFaultText fault;
    benchmark::DoNotOptimize(KelValidate_Batch(Record(), Length(), &fault));
}
void ValidateBare() { benchmark::DoNotOptimize(Bare::Valid(Record(), Length())); }

void TraceIn() { KeldTraceIn(Record()); }
void TraceInBare()
{
    static Bare::History history;
    Bare::Trace(history, ",IN,", KelRecord_Timestamp(Record()), KelRecord_ID(Record()), Area(),
                KelRecord_ArgumentCount(Record()));
}

void Match()
{
    static const std::vector<KeldSubscription> subscriptions = [] {
        std::vector<KeldSubscription> made;
        for (const auto &correlator : keldCorrelators) {
            made.emplace_back();
            for (const char *domain : correlator.domain.domains)
                if (domain != nullptr) KeldSubscriptionAddDomain(&made.back(), domain);
        }
        return made;
    }();
    const std::string_view id = KelRecord_ID(Record());
    for (const KeldSubscription &subscription : subscriptions)
        benchmark::DoNotOptimize(KeldSubscriptionMatches(subscription, id));
}
void MatchBare() { benchmark::DoNotOptimize(Bare::AgentsFor(KelRecord_ID(Record()))); }

void MakeKel()
{
    Kel *kel = nullptr;
    benchmark::DoNotOptimize(Kel_MakeKel(CopyOfRecord(), static_cast<std::uint32_t>(Length()), &kel));
    Kel_Free(kel);
}
void MakeKelBare()
{
    void *copy = CopyOfRecord();
    benchmark::DoNotOptimize(Bare::Valid(static_cast<char *>(copy), Length()));
    std::free(copy);
}

void LookUp()
{
    static const KeldCorrelatorTable table = KeldDomainTable(keldNetDomain);
    benchmark::DoNotOptimize(table.find(std::string_view(KelRecord_ID(Record()))));
}
void LookUpBare()
{
    static const Bare::Table table = Bare::MakeTable(Load::kPostedId, nullptr);
    benchmark::DoNotOptimize(Bare::LookUp(table, KelRecord_ID(Record())));
}

void Message()
{
    char *text = nullptr;
    MsgFmt_Asprintf(&text, nullptr, kFormat, Area(), 2, KelRecord_End(Record()));
    benchmark::DoNotOptimize(text);
    std::free(text);
}
void MessageBare()
{
    char *text = Bare::Message(kFormat, Area());
    benchmark::DoNotOptimize(text);
    std::free(text);
}

void LogPrefix()
{
    char prefix[32];
    benchmark::DoNotOptimize(KeldLogTimestamp(true, prefix, sizeof prefix));
}
void LogPrefixBare()
{
    char prefix[32];
    Bare::LogPrefix(prefix, sizeof prefix);
    benchmark::DoNotOptimize(prefix[0]);
}

constexpr char kText[] = "Uplink vmnic2 was connected to switch DvsPortset-0.";
void LogLine() { KeldLogTraceLine(Load::kPostedId, kText, 1772366400000000); }
void LogLineBare() { Bare::SendTraceLine("NetCorrelator", 1772366400000000, Load::kPostedId, kText); }

struct Step {
    const char *what;
    Body keld, bare; // bare: null where the daemon is not the one who does it
};
constexpr Step kSteps[] = {
    {"build a record (a producer's)", BuildRecord, nullptr},
    {"check a record", Validate, ValidateBare},
    {"trace line into the history", TraceIn, TraceInBare},
    {"match the subscriptions of 18 agents", Match, MatchBare},
    {"make a Kel and free it", MakeKel, MakeKelBare},
    {"look up in a table of 42", LookUp, LookUpBare},
    {"message text", Message, MessageBare},
    {"log prefix", LogPrefix, LogPrefixBare},
    {"log line to the system log", LogLine, LogLineBare},
};

void Run(benchmark::State &state, Body body)
{
    for (auto _ : state)
        body();
}

// Takes the nanoseconds of every repetition.
class Collector : public benchmark::BenchmarkReporter {
public:
    bool ReportContext(const Context &) override { return true; }
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs)
            if (run.run_type == Run::RT_Iteration)
                nanoseconds[run.run_name.function_name].push_back(run.GetAdjustedCPUTime());
    }

    std::map<std::string, std::vector<double>> nanoseconds;
};

} // namespace

std::vector<Row> MeasureSteps(bool quick)
{
    KThreadBase_SetName("NetCorrelator");
    std::vector<std::string> flags{"steps", "--benchmark_enable_random_interleaving=true",
                                   std::string("--benchmark_min_time=") + (quick ? "0.0001" : "0.02"),
                                   std::string("--benchmark_repetitions=") + (quick ? "1" : "15")};
    std::vector<char *> arguments;
    for (std::string &flag : flags)
        arguments.push_back(flag.data());
    int count = static_cast<int>(arguments.size());
    benchmark::Initialize(&count, arguments.data());
    const auto bareName = [](const Step &step) { return std::string(step.what) + ", bare"; };
    for (const Step &step : kSteps) {
        benchmark::RegisterBenchmark(step.what, Run, step.keld);
        if (step.bare != nullptr) benchmark::RegisterBenchmark(bareName(step).c_str(), Run, step.bare);
    }
    Collector collector;
    benchmark::RunSpecifiedBenchmarks(&collector);

    std::vector<Row> rows;
    for (const Step &step : kSteps)
        rows.push_back(
            MakeRow(step.what, "ns",
                    {collector.nanoseconds[step.what], collector.nanoseconds[bareName(step)], {}}));
    return rows;
}
