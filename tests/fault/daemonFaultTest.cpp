// The daemon as it is shipped, while the system under it fails.
//
// A failure ends the daemon with a status, or one agent or client with a line, or it costs one
// observation or event; what is nobody's business goes on unnoticed. Each call fails once, and for ever.
// Whatever happens, everything else is served as before, and nothing is left behind.
#include "faults.h"
#include "systemTest.h"
#include "traceClient.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <poll.h>
#include <sys/resource.h>

namespace {

const DaemonProgram kFaultyDaemon{KELD_BINARY, KELD_LOGSHIM ":" KELD_FAULTS};

constexpr int kPanic = 128 + SIGABRT;
constexpr int kMinusOne = 255; // as an exit status

// In the order in which they are made.
constexpr int kAlarmThread = 1, kFirstAgentThread = 2;
constexpr int kLastChannel = 24, kTraceSocket = 25; // of the sockets; the log has the first
constexpr std::size_t kAgents = 18, kPollSlotsFirst = 24, kPollSlots = 32;

constexpr const char *kQueued =
    "An event (nox.problem.3rdParty.error) could not be sent immediately to carad; queueing for retry.";
constexpr const char *kSwapLost = "kel.swap.systemSwap.isPDL.removed";

class FaultTest : public SystemTest {
public:
    void Launch(const Texts &arguments = {})
    {
        daemon.emplace(kFaultyDaemon, arguments, Texts{faults.Variable()});
    }

    // Running, with nothing open that could be closed on the way.
    void LaunchAndCount()
    {
        Launch();
        ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Log().Raw() << daemon->Output();
        ExpectServes("");
        threads = daemon->ThreadCount();
        descriptors = daemon->DescriptorCount();
    }

    // Memory is a sanitizer's own, and so is the look-out for threads that nobody has joined.
    static bool CanFail(Seam seam) { return !kSanitized || (seam != Seam::Memory && seam != Seam::Join); }

    // ---- What may happen while something fails. Through an asynchronous context, which needs no
    // connection that would have to be counted.

    void SendReport() { SystemTest::SendReport(0, "stimulus"); }
    static std::size_t ReportBytes() { return Report("stimulus").size(); }
    void SendReportAsAService()
    {
        service.emplace(kUser);
        EXPECT_EQ(0, service->Send(Report("stimulus")));
    }
    void SendSwapLoss() { SendMany(kSwapLost, 1); }
    void SendManySwapLosses() { SendMany(kSwapLost, kMoreThanAPipeHolds); }
    void SendNews() { SendMany("kel.external.x", 1); }
    void SendNetNews() { SendMany("kel.net.x", 1); }
    void ConnectTraceClient()
    {
        TraceClient client(host.Path("keld-trace.sock"));
        std::string line = client.Line();
        while (line != "(end)" && line != "(nothing)")
            line = client.Line();
        EXPECT_EQ("(end)", line);
    }
    void Stop() { daemon->Signal(SIGTERM); }

    static void SendMany(const char *id, int count)
    {
        const RecordBytes record = MakeRecord(id, "%s", "/dsfs/volumes/gold/sysSwap-host7.swp");
        RawProducer producer(0);
        for (; count > 0; --count)
            EXPECT_EQ(0, producer.Send(record));
    }

    // What a row says, in a daemon of its own.
    void Provoke(const auto &row, Times times)
    {
        if (!CanFail(row.fault.seam)) GTEST_SKIP();
        if (row.stimulus != nullptr) LaunchAndCount();
        faults.Arm(row.fault, times);
        if (row.stimulus == nullptr)
            Launch({"-e"});
        else
            (this->*row.stimulus)();
    }

    // ---- What must hold then

    // Two agents go on, unless it is one of them that does not get what is lost, however much of it comes.
    void ExpectServes(const std::string &lost)
    {
        if (!lost.empty()) SendMany(lost.c_str(), kMoreThanAPipeHolds);
        Texts expected;
        if (!lost.starts_with("kel.net.")) {
            Send(2, "kel.net.lacp.enable", "%s", "vSwitch0");
            expected.emplace_back("nox.audit.net.lacp.enable(vSwitch0)");
        }
        if (!lost.starts_with("kel.external.")) {
            SystemTest::SendReport(1, "afterwards");
            expected.push_back(Reported("afterwards"));
        }
        Texts events = WaitForEvents(expected.size());
        std::sort(events.begin(), events.end());
        EXPECT_EQ(expected, events) << daemon->Log().Raw();
    }

    // A connection through which nothing could be sent is no event.
    Texts WaitForEvents(std::size_t count)
    {
        Texts events;
        while (events.size() < count) {
            const auto records = receiver.WaitForRaw(1);
            if (records.empty()) break;
            for (const RecordBytes &record : records) {
                EventRecord event;
                std::string error;
                if (record.empty()) continue;
                EXPECT_EQ(0, EventRecord_Decode(record, &event, &error)) << error;
                events.push_back(ToText(event));
            }
        }
        return events;
    }

    void ExpectNothingLeft(std::size_t agentsLost)
    {
        EXPECT_TRUE(WaitUntil([&] {
            return daemon->ThreadCount() == threads - agentsLost &&
                   daemon->DescriptorCount() == descriptors - 2 * agentsLost;
        })) << daemon->ThreadCount()
            << " threads of " << threads << ", " << daemon->DescriptorCount() << " descriptors of "
            << descriptors;
    }

    void ExpectLine(const std::string &line)
    {
        if (line.empty()) return;
        EXPECT_TRUE(daemon->Log().WaitForLine(line)) << line << "\n" << daemon->Log().Raw();
    }
    void ExpectFailures(Seam seam, int count)
    {
        EXPECT_TRUE(WaitUntil([&] { return faults.Failed(seam) >= count; }));
    }

    rlim_t LowestFreeDescriptor() const
    {
        rlim_t number = 0;
        while (std::filesystem::is_symlink("/proc/" + std::to_string(daemon->Pid()) + "/fd/" +
                                           std::to_string(number)))
            ++number;
        return number;
    }
    void SetDescriptorLimit(rlim_t limit)
    {
        const rlimit both{limit, 1024};
        EXPECT_EQ(0, prlimit(daemon->Pid(), RLIMIT_NOFILE, &both, nullptr));
    }

    void ExpectAccepted()
    {
        EXPECT_FALSE(TraceClient(host.Path("keld-trace.sock")).History().empty());
        SystemTest::SendReport(kUser, "accepted");
        EXPECT_EQ(Reported(Texts{"accepted"}), WaitForEvents(1));
    }

    // The processor time of somebody who waits, while this process uses a lot of it.
    void ExpectIdle()
    {
        const auto before = daemon->ProcessorTime();
        UseProcessorTime(std::chrono::milliseconds(300));
        EXPECT_GT(std::chrono::milliseconds(100), daemon->ProcessorTime() - before);
    }

    static constexpr int kMoreThanAPipeHolds = 2000;

    Faults faults{host.Path("faults")};
    std::optional<RawProducer> service; // stays connected
    std::size_t threads = 0, descriptors = 0;
};

const std::size_t kReportBytes = FaultTest::ReportBytes();
using Stimulus = void (FaultTest::*)();
constexpr Stimulus kAtStart = nullptr; // the fault is there already when the daemon is started

// How a row is called in the list of tests.
template <class Row>
concept NamedRow = requires(const Row &row)
{
    row.name;
    row.fault;
};
template <NamedRow Row> std::ostream &operator<<(std::ostream &out, const Row &row)
{
    return out << row.name;
}
constexpr auto kNameOf = [](const auto &param) {
    return std::get<0>(param.param).name + testing::PrintToString(std::get<1>(param.param));
};
const auto kOnceAndForEver = testing::Values(Times::Once, Times::ForEver);

// ---- What ends the daemon ---------------------------------------------------------------------------

struct ExitRow {
    const char *name;
    Stimulus stimulus;
    Fault fault;
    int status;
    const char *line;
};

// clang-format off
const ExitRow kExitRows[] = {
    {"SignalHandler", kAtStart, {Seam::Sigaction, EINVAL}, EINVAL, ""},
    {"KernelSignature", kAtStart, {Seam::Open, EIO, "host/kernel/signature"}, kPanic,
     "md5 signature mismatch with running kernix built on unknown (my build date: 0.1.0)"},
    {"AsyncOption", kAtStart, {Seam::Write, ENOSPC, "keld"}, EIO, ""},
    {"PollTable", kAtStart, {Seam::Memory, ENOMEM, "keld", 1, kPollSlotsFirst * sizeof(pollfd)}, 1, ""},
    {"LockFile", kAtStart, {Seam::Open, ENOSPC, "/kel/lock"}, ENOSPC, "/kel/lock: open: No space left on device"},
    {"LastSocket", kAtStart, {Seam::Socket, ENFILE, "", kLastChannel}, ENFILE,
     "/kel/user.sock: socket: Too many open files in system"},
    {"Bind", kAtStart, {Seam::Bind, EACCES, "", 5}, EACCES, "/kel/async-4.sock: bind: Permission denied"},
    {"Listen", kAtStart, {Seam::Listen, ENOBUFS}, ENOBUFS, "/kel/user.sock: listen: No buffer space available"},
    {"NetWakePipe", kAtStart, {Seam::Pipe2, EMFILE}, kPanic,
     "Failed to initialize pipes for this thread: Too many open files"},
    {"RecordBuffer", kAtStart, {Seam::Memory, ENOMEM, "keld", 1, 8192}, 12,
     "Error allocating space for kel buffer. Out of memory"},

    {"MainPoll", &FaultTest::SendReport, {Seam::Ppoll, ENOMEM}, kMinusOne, ""},
    {"ChannelRead", &FaultTest::SendReport, {Seam::Recv, EIO}, EIO, ""},
    {"AgentPipeWrite", &FaultTest::SendReport, {Seam::Write, EIO, "keld"}, EIO, ""},

    {"CancelAgent", &FaultTest::Stop, {Seam::Cancel, ESRCH}, 0, "Failed to cancel thread id:17, err:3 No such process"},
    {"JoinAgent", &FaultTest::Stop, {Seam::Join, EDEADLK}, 0,
     "Failed to join thread id:17, err:35 Resource deadlock avoided"},
    {"CloseChannel", &FaultTest::Stop, {Seam::Unlink, EACCES, "/async-3.sock"}, 0, ": 13"},
};
// clang-format on

class ExitTest : public FaultTest, public testing::WithParamInterface<std::tuple<ExitRow, Times>> {};

TEST_P(ExitTest, EndsTheDaemonWithItsStatus)
{
    const auto &[row, times] = GetParam();
    Provoke(row, times);
    if (IsSkipped()) return;
    EXPECT_EQ(row.status, daemon->WaitForExit()) << daemon->Log().Raw();
    EXPECT_LT(0, faults.Failed(row.fault.seam));
    EXPECT_FALSE(daemon->Log().LinesWith(row.line).empty()) << daemon->Log().Raw();
    if (row.status == kPanic) {
        EXPECT_EQ("Keld - Panic: " + std::string(row.line) + "\n", daemon->Output());
        return;
    }
    EXPECT_EQ("", daemon->Output());
    EXPECT_EQ("Exiting. rc:" + std::to_string(row.status == kMinusOne ? -1 : row.status),
              daemon->Log().Lines().back());
    EXPECT_FALSE(std::filesystem::exists(host.Path("kel/async-0.sock")));
}

INSTANTIATE_TEST_SUITE_P(Call, ExitTest, testing::Combine(testing::ValuesIn(kExitRows), kOnceAndForEver),
                         kNameOf);

// ---- What the daemon survives -----------------------------------------------------------------------

struct GoesOnRow {
    const char *name;
    Stimulus stimulus;
    Fault fault;
    const char *line;
    const char *event = ""; // what the stimulus becomes all the same
    const char *lost = "";  // an observation of the agent that ends, or never starts
};

constexpr const char *kReported =
    "nox.problem.3rdParty.error(acme-raid, https://kb.example/1042, acme-raid, stimulus)";
constexpr const char *kSwapFailed =
    "nox.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2((unknown))";

// clang-format off
const GoesOnRow kGoesOnRows[] = {
    {"HostIdentity", kAtStart, {Seam::Open, EIO, "host/kernel/nodes/system/systemUuid"}, ""},
    {"TraceSocket", kAtStart, {Seam::Socket, EMFILE, "", kTraceSocket}, "Trace socket cannot be opened: Too many open files"},
    {"AgentPipe", kAtStart, {Seam::Pipe, EMFILE, "SWAP"}, "Failed to initialize agent SWAPCorrelator (error code: 2) ",
     "", "kel.swap.x"},

    {"MainPollInterrupted", &FaultTest::SendReport, {Seam::Ppoll, EINTR}, "", kReported},
    {"ChannelReadAgain", &FaultTest::SendReport, {Seam::Recv, EAGAIN}, "", kReported},
    {"ServiceRead", &FaultTest::SendReportAsAService, {Seam::Recv, EIO}, "", kReported},
    {"AgentPipeFull", &FaultTest::SendReport, {Seam::Write, EAGAIN, "keld"}, "", kReported},
    {"Time", &FaultTest::SendReport, {Seam::GetTimeOfDay, EFAULT}, "", kReported},

    {"AgentPollInterrupted", &FaultTest::SendReport, {Seam::Poll, EINTR, "Generic"}, "", kReported},
    // Before its agent sees the news, or behind that: it may still be on its way back to its poll.
    {"AgentPoll", &FaultTest::SendNews, {Seam::Poll, ENOMEM, "Generic"}, "Failed to poll - Cannot allocate memory",
     "", "kel.external.error"},
    {"NetAgentPoll", &FaultTest::SendNetNews, {Seam::Poll, ENOMEM, "Net"}, "Failed to poll - Cannot allocate memory",
     "", "kel.net.x"},
    {"AgentReadAgain", &FaultTest::SendReport, {Seam::Read, EAGAIN, "Generic"}, "", kReported},
    {"AgentRead", &FaultTest::SendReport, {Seam::Read, EIO, "Generic"}, "Failed to get Kel", "", "kel.external.error"},
    {"NetAgentRead", &FaultTest::SendNetNews, {Seam::Read, EIO, "Net"}, "Failed to get Kel", "", "kel.net.x"},
    {"AgentRecord", &FaultTest::SendReport, {Seam::Memory, ENOMEM, "Generic", 1, kReportBytes}, "Failed to get Kel",
     "", "kel.external.error"},
    // Out of the host's library, which documents another.
    {"Kept_ExceptionOfAnotherKind", &FaultTest::SendManySwapLosses, {Seam::Memory, ENOMEM, "SWAP", 1, 64},
     "Exception (std::bad_alloc) in agent function(0x", "", kSwapLost},

    {"EventSocket", &FaultTest::SendReport, {Seam::Socket, EMFILE, "Generic"}, kQueued},
    {"EventConnect", &FaultTest::SendReport, {Seam::Connect, ECONNREFUSED}, kQueued},
    {"EventConnectAgain", &FaultTest::SendReport, {Seam::Connect, EAGAIN}, "", kReported},
    {"EventSend", &FaultTest::SendReport, {Seam::Send, ENOBUFS}, kQueued},
    {"EventSendAgain", &FaultTest::SendReport, {Seam::Send, EAGAIN}, "", kReported},

    {"TraceServeThread", &FaultTest::ConnectTraceClient, {Seam::Thread, EAGAIN},
     "pthread_create failed: Resource temporarily unavailable"},
    {"TraceWriterThread", &FaultTest::ConnectTraceClient, {Seam::Thread, EAGAIN, "", 2},
     "pthread_create failed: Resource temporarily unavailable"},
    {"TraceWrite", &FaultTest::ConnectTraceClient, {Seam::Send, EIO, "keld"}, "Unexpected write error Input/output error"},
    {"TraceRead", &FaultTest::ConnectTraceClient, {Seam::Read, EIO, "keld"}, ""},

    {"SwapRead", &FaultTest::SendSwapLoss, {Seam::Open, EIO, "host/swap/failure"},
     "System swap: cannot read swap/failure: Input/output error", kSwapFailed},
    {"SwapCount", &FaultTest::SendSwapLoss, {Seam::Open, EIO, "host/swap/reconfigured"},
     "System swap: cannot read swap/reconfigured: Input/output error", kSwapFailed},
    {"SwapWrite", &FaultTest::SendSwapLoss, {Seam::Write, ENOSPC, "SWAP"},
     "System swap: cannot write swap/reconfigured: No space left on device", kSwapFailed},
};
// clang-format on

class GoesOnTest : public FaultTest, public testing::WithParamInterface<std::tuple<GoesOnRow, Times>> {};

TEST_P(GoesOnTest, CostsNoMoreThanItMust)
{
    const GoesOnRow &row = std::get<GoesOnRow>(GetParam());
    Provoke(row, std::get<Times>(GetParam()));
    if (IsSkipped()) return;
    ExpectFailures(row.fault.seam, 1);
    ExpectLine(row.line);
    faults.Disarm();
    EXPECT_TRUE(WaitUntil([&] { return std::filesystem::exists(host.Path("kel/user.sock")); }));
    if (*row.event != '\0') {
        EXPECT_EQ(Texts{row.event}, WaitForEvents(1));
    }
    ExpectServes(row.lost);
    service.reset();
    if (row.stimulus != kAtStart) ExpectNothingLeft(*row.lost == '\0' ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(Call, GoesOnTest,
                         testing::Combine(testing::ValuesIn(kGoesOnRows), kOnceAndForEver), kNameOf);

// ---- Threads ----------------------------------------------------------------------------------------

TEST_F(FaultTest, WhatHasNoThreadIsMissedAlone)
{
    faults.Arm({Seam::Thread, EAGAIN, "", kAlarmThread}, Times::Once);
    LaunchAndCount();
    constexpr std::size_t kLess =
        2U + kAgents + kSanitizerThreads; // main's, the journal's, and but for one the others
    EXPECT_EQ(kLess, threads);

    faults.Arm({Seam::Thread, EAGAIN, "", kFirstAgentThread + 2}, Times::Once);
    LaunchAndCount();
    EXPECT_EQ(1U, daemon->Log().LinesWith("Failed to create thread 0x").size());
    ExpectLine(" (id:2 err:11 Resource temporarily unavailable)");
    EXPECT_EQ(kLess, threads);
    ExpectServes("kel.storage.apd.x");

    faults.Arm({Seam::Thread, EAGAIN, "", kFirstAgentThread + kAgents}, Times::Once);
    LaunchAndCount();
    ExpectLine("Journal socket cannot be opened: Resource temporarily unavailable");
    EXPECT_EQ(kLess, threads);
}

// ---- Descriptors ------------------------------------------------------------------------------------

// Nobody else's: the daemon itself has none left.
TEST_F(FaultTest, WithoutDescriptorsConnectionsAreTurnedAwayUntilThereAreSomeAgain)
{
    LaunchAndCount();
    SetDescriptorLimit(LowestFreeDescriptor());
    EXPECT_TRUE(RawProducer(kUser).WaitUntilClosed());
    ConnectTraceClient();
    ExpectLine("Trace accept() failed: Too many open files");
    ExpectIdle();
    SetDescriptorLimit(1024);
    ExpectAccepted();
    ExpectServes("");
    ExpectNothingLeft(0);
}

// The whole host has none: whatever the daemon gives up, somebody else takes.
class AcceptTest : public FaultTest, public testing::WithParamInterface<int> {};

TEST_P(AcceptTest, ConnectionsWaitWhileNothingCanBeAccepted)
{
    LaunchAndCount();
    faults.Arm({Seam::Accept, GetParam()}, Times::ForEver);
    const RawProducer producer(kUser);
    const TraceClient client(host.Path("keld-trace.sock"));
    ExpectFailures(Seam::Accept, 10);
    ExpectIdle();
    ExpectServes("");
    faults.Disarm();
    ExpectAccepted();
    ExpectLine("Trace accept() failed: " + std::string(strerrordesc_np(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Error, AcceptTest, testing::Values(EMFILE, ENFILE, ENOMEM, ENOBUFS),
                         [](const auto &param) { return std::string(strerrorname_np(param.param)); });

// ---- Memory -----------------------------------------------------------------------------------------

TEST_F(FaultTest, WithoutMemoryForConnectionsProducersAreTurnedAway)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    faults.Arm({Seam::Memory, ENOMEM, "keld", 1, kPollSlots * sizeof(pollfd)}, Times::ForEver);
    LaunchAndCount();
    EXPECT_TRUE(RawProducer(kUser).WaitUntilClosed());
    ExpectServes("");
    ExpectNothingLeft(0);
}

TEST_F(FaultTest, WithoutMemoryForALargerBufferWhatWaitsThereIsLost)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    LaunchAndCount();
    const std::string large(10'000, '.');
    faults.Arm({Seam::Memory, ENOMEM, "keld", 1, 12288}, Times::Once);
    SystemTest::SendReport(0, large);
    ExpectFailures(Seam::Memory, 1);
    ExpectServes("");
    SystemTest::SendReport(0, large);
    EXPECT_EQ(Reported(Texts{large}), WaitForEvents(1));
}

TEST_F(FaultTest, WithoutMemoryForAnAgentsFirstEventThatOneIsLost)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    faults.Arm({Seam::Memory, ENOMEM, "Generic", 1, 1171}, Times::Once);
    Launch();
    ASSERT_TRUE(daemon->WaitUntilReady());
    SendReport();
    ExpectLine("Failed to allocate 1171 bytes for prob buffer.");
    ExpectServes("");
}

TEST_F(FaultTest, WithoutMemoryToKeepItAnEventIsLost)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    LaunchAndCount();
    SendReport();
    const std::size_t bytes = receiver.WaitForRaw(1).at(0).size();
    faults.Arm({Seam::Memory, ENOMEM, "Generic", 1, bytes}, Times::Once);
    faults.Arm({Seam::Connect, ECONNREFUSED}, Times::Once);
    SendReport();
    ExpectFailures(Seam::Memory, 1);
    ExpectLine(kQueued);
    ExpectServes("");
    ExpectNothingLeft(0);
}

} // namespace
