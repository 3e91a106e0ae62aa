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
const DaemonProgram kFaultyHandClockDaemon{KELD_LAB_BINARY, KELD_FAULTS};

constexpr int kPanic = 128 + SIGABRT;
constexpr int kMinusOne = 255; // as an exit status

// In the order in which they are made.
constexpr int kAlarmThread = 1, kFirstAgentThread = 2;
constexpr int kLastChannel = 23, kTraceSocket = 24;
constexpr std::size_t kAgents = 18, kPollSlotsFirst = 24, kPollSlots = 32;

constexpr const char *kQueued =
    "An event (nox.problem.3rdParty.error) could not be sent immediately to carad; queueing for retry.";

class FaultTest : public SystemTest {
public:
    void Launch(const DaemonProgram &program, const Texts &arguments = {})
    {
        daemon.emplace(program, arguments, Texts{faults.Variable()});
    }

    // Running, with nothing open that could be closed on the way.
    void LaunchAndCount(const DaemonProgram &program = kFaultyDaemon)
    {
        Launch(program);
        ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Log().Raw() << daemon->Output();
        ExpectServes("");
        threads = daemon->ThreadCount();
        descriptors = daemon->DescriptorCount();
    }

    void AwaitChannels()
    {
        EXPECT_TRUE(WaitUntil([&] {
            try {
                return RawProducer(kUser).Fd() >= 0;
            } catch (const std::exception &) {
                return false;
            }
        })) << daemon->Log().Raw();
    }

    // Memory is a sanitizer's own, and so is the look-out for threads that nobody has joined.
    static bool CanFail(Seam seam) { return !kSanitized || (seam != Seam::Memory && seam != Seam::Join); }

    // ---- What may happen while something fails. Through an asynchronous context, which needs no
    // connection that would have to be counted.

    void Nothing() {}
    void SendReport() { SystemTest::SendReport(0, "stimulus"); }
    void SendReportAsAService()
    {
        service.emplace(kUser);
        EXPECT_EQ(0, service->Send(Report("stimulus")));
    }
    void SendLongReport() { SystemTest::SendReport(0, std::string(1500, '.')); }
    void SendSwapLoss() { SendMany("kel.swap.systemSwap.isPDL.removed", 1); }
    void SendManySwapLosses() { SendMany("kel.swap.systemSwap.isPDL.removed", kMoreThanAPipeHolds); }
    void SendSwapLossForGood() { SendMany("kel.swap.systemSwap.isPDL.cannot.remove", 1); }
    void SendNews() { SendMany("kel.external.x", 1); }
    void SendNetNews() { SendMany("kel.net.x", 1); }
    void ConnectTraceClient() { ExpectEnd(TraceClient(host.Path("keld-trace.sock"))); }
    void Stop() { daemon->Signal(SIGTERM); }

    // So many records of one text, in batches.
    static void SendMany(const char *id, int count)
    {
        const RecordBytes record = MakeRecord(id, "%s", "/dsfs/volumes/gold/sysSwap-host7.swp");
        RawProducer producer(0);
        RecordBytes batch;
        for (; count > 0; --count) {
            batch.insert(batch.end(), record.begin(), record.end());
            if (count > 1 && batch.size() + record.size() <= kBatchBytes) continue;
            EXPECT_EQ(0, producer.Send(batch));
            batch.clear();
        }
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

    static void ExpectEnd(TraceClient client)
    {
        std::string line;
        do
            line = client.Line();
        while (line != "(end)" && line != "(nothing)");
        EXPECT_EQ("(end)", line);
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
        const std::size_t fewer = 2 * agentsLost;
        EXPECT_TRUE(WaitUntil([&] {
            return daemon->ThreadCount() == threads - agentsLost &&
                   daemon->DescriptorCount() == descriptors - fewer;
        })) << daemon->ThreadCount()
            << " threads of " << threads << ", " << daemon->DescriptorCount() << " descriptors of "
            << descriptors;
    }

    void ExpectLine(const std::string &line)
    {
        if (line.empty()) return;
        EXPECT_TRUE(daemon->Log().WaitForLine(line)) << line << "\n" << daemon->Log().Raw();
    }

    rlim_t LowestFreeDescriptor() const
    {
        const std::string directory = "/proc/" + std::to_string(daemon->Pid()) + "/fd/";
        rlim_t number = 0;
        while (std::filesystem::is_symlink(directory + std::to_string(number)))
            ++number;
        return number;
    }
    void SetDescriptorLimit(rlim_t limit)
    {
        const rlimit both{limit, 1024};
        EXPECT_EQ(0, prlimit(daemon->Pid(), RLIMIT_NOFILE, &both, nullptr));
    }

    void ExpectTurnedAway()
    {
        EXPECT_TRUE(RawProducer(kUser).WaitUntilClosed());
        ConnectTraceClient();
        ExpectLine("Trace accept() failed: Too many open files");
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

    static constexpr std::size_t kBatchBytes = 50000;
    static constexpr int kMoreThanAPipeHolds = 2000;

    Faults faults{host.Path("faults")};
    std::optional<RawProducer> service; // stays connected
    std::size_t threads = 0, descriptors = 0;
};

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

// ---- What ends the daemon ---------------------------------------------------------------------------

struct ExitRow {
    const char *name;
    bool running; // else before the start
    void (FaultTest::*stimulus)();
    Fault fault;
    int status;
    const char *line;
};

// clang-format off
const ExitRow kExitRows[] = {
    {"SignalHandler", false, &FaultTest::Nothing, {Seam::Sigaction, EINVAL}, EINVAL, ""},
    {"KernelSignature", false, &FaultTest::Nothing, {Seam::Open, EIO, 1, "", "host/kernel/signature"}, kPanic,
     "md5 signature mismatch with running kernix built on unknown (my build date: 0.1.0)"},
    {"AsyncOption", false, &FaultTest::Nothing, {Seam::Write, ENOSPC, 1, "keld"}, EIO, ""},
    {"PollTable", false, &FaultTest::Nothing, {Seam::Memory, ENOMEM, 1, "keld", "", kPollSlotsFirst * sizeof(pollfd)}, 1, ""},
    {"LockFile", false, &FaultTest::Nothing, {Seam::Open, ENOSPC, 1, "", "/kel/lock"}, ENOSPC,
     "/kel/lock: open: No space left on device"},
    {"FirstSocket", false, &FaultTest::Nothing, {Seam::Socket, EMFILE}, EMFILE,
     "/kel/async-0.sock: socket: Too many open files"},
    {"LastSocket", false, &FaultTest::Nothing, {Seam::Socket, ENFILE, kLastChannel}, ENFILE,
     "/kel/user.sock: socket: Too many open files in system"},
    {"Bind", false, &FaultTest::Nothing, {Seam::Bind, EACCES, 5}, EACCES,
     "/kel/async-4.sock: bind: Permission denied"},
    {"Listen", false, &FaultTest::Nothing, {Seam::Listen, ENOBUFS}, ENOBUFS,
     "/kel/user.sock: listen: No buffer space available"},
    {"NetWakePipe", false, &FaultTest::Nothing, {Seam::Pipe2, EMFILE}, kPanic,
     "Failed to initialize pipes for this thread: Too many open files"},
    {"RecordBuffer", false, &FaultTest::Nothing, {Seam::Memory, ENOMEM, 1, "keld", "", 8192}, 12,
     "Error allocating space for kel buffer. Out of memory"},

    {"MainPoll", true, &FaultTest::SendReport, {Seam::Ppoll, ENOMEM}, kMinusOne, ""},
    {"ChannelRead", true, &FaultTest::SendReport, {Seam::Recv, EIO}, EIO, ""},
    {"ChannelReadNoMemory", true, &FaultTest::SendReport, {Seam::Recv, ENOMEM}, ENOMEM, ""},
    {"AgentPipeWrite", true, &FaultTest::SendReport, {Seam::Write, EIO, 1, "keld"}, EIO, ""},
    {"AgentPipeWriteNoSpace", true, &FaultTest::SendReport, {Seam::Write, ENOSPC, 1, "keld"}, ENOSPC, ""},
    {"EventTypeId", true, &FaultTest::SendSwapLossForGood, {Seam::Memory, ENOMEM, 1, "SWAP", "", 38}, kPanic,
     "MEM_ALLOC apps/keld/keldPling:619"},

    {"CancelAgent", true, &FaultTest::Stop, {Seam::Cancel, ESRCH}, 0,
     "Failed to cancel thread id:17, err:3 No such process"},
    {"JoinAgent", true, &FaultTest::Stop, {Seam::Join, EDEADLK}, 0,
     "Failed to join thread id:17, err:35 Resource deadlock avoided"},
    {"CloseChannel", true, &FaultTest::Stop, {Seam::Unlink, EACCES, 1, "", "async-3.sock"}, 0, ": 13"},
};
// clang-format on

class ExitTest : public FaultTest, public testing::WithParamInterface<std::tuple<ExitRow, Times>> {};

TEST_P(ExitTest, EndsTheDaemonWithItsStatus)
{
    const auto &[row, times] = GetParam();
    if (!CanFail(row.fault.seam)) GTEST_SKIP();
    if (row.running) LaunchAndCount();
    faults.Arm(row.fault, times);
    if (!row.running) Launch(kFaultyDaemon, {"-e"});
    (this->*row.stimulus)();

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

INSTANTIATE_TEST_SUITE_P(Call, ExitTest,
                         testing::Combine(testing::ValuesIn(kExitRows),
                                          testing::Values(Times::Once, Times::ForEver)),
                         [](const auto &param) {
                             return std::get<ExitRow>(param.param).name +
                                    testing::PrintToString(std::get<Times>(param.param));
                         });

// ---- What the daemon survives -----------------------------------------------------------------------

enum class Outcome { Delivered, Queued, Dropped, NoReport };

struct GoesOnRow {
    const char *name;
    bool running; // else before the start
    void (FaultTest::*stimulus)();
    Fault fault;
    const char *line;
    Outcome outcome;
    const char *lost; // an observation of the agent that ends, or never starts
};

// clang-format off
const GoesOnRow kGoesOnRows[] = {
    {"HostIdentity", false, &FaultTest::Nothing, {Seam::Open, EIO, 1, "", "host/kernel/nodes/system/systemUuid"},
     "", Outcome::NoReport, ""},
    {"SpareDescriptor", false, &FaultTest::Nothing, {Seam::Open, ENFILE, 1, "", "/dev/null"}, "", Outcome::NoReport, ""},
    {"TraceSocket", false, &FaultTest::Nothing, {Seam::Socket, EMFILE, kTraceSocket},
     "Trace socket cannot be opened: Too many open files", Outcome::NoReport, ""},
    {"TraceBind", false, &FaultTest::Nothing, {Seam::Bind, EACCES, kTraceSocket},
     "Trace socket cannot be opened: Permission denied", Outcome::NoReport, ""},
    {"TraceListen", false, &FaultTest::Nothing, {Seam::Listen, ENOBUFS, 2},
     "Trace socket cannot be opened: No buffer space available", Outcome::NoReport, ""},
    {"AgentPipe", false, &FaultTest::Nothing, {Seam::Pipe, EMFILE, 1, "SWAP"},
     "Failed to initialize agent SWAPCorrelator (error code: 2) ", Outcome::NoReport, "kel.swap.x"},
    {"AgentPipeFlags", false, &FaultTest::Nothing, {Seam::Fcntl, EINVAL, 1, "SWAP"},
     "Failed to initialize agent SWAPCorrelator (error code: 2) ", Outcome::NoReport, "kel.swap.x"},

    {"MainPollInterrupted", true, &FaultTest::SendReport, {Seam::Ppoll, EINTR}, "", Outcome::Delivered, ""},
    {"ChannelReadAgain", true, &FaultTest::SendReport, {Seam::Recv, EAGAIN}, "", Outcome::Delivered, ""},
    {"ServiceRead", true, &FaultTest::SendReportAsAService, {Seam::Recv, EIO}, "", Outcome::Delivered, ""},
    {"AgentPipeFull", true, &FaultTest::SendReport, {Seam::Write, EAGAIN, 1, "keld"}, "", Outcome::Delivered, ""},
    {"Time", true, &FaultTest::SendReport, {Seam::GetTimeOfDay, EFAULT}, "", Outcome::Delivered, ""},

    {"AgentPollInterrupted", true, &FaultTest::SendReport, {Seam::Poll, EINTR, 1, "Generic"},
     "", Outcome::Delivered, ""},
    // Before its agent sees the news, or behind that: it may still be on its way back to its poll.
    {"AgentPoll", true, &FaultTest::SendNews, {Seam::Poll, ENOMEM, 1, "Generic"},
     "Failed to poll - Cannot allocate memory", Outcome::NoReport, "kel.external.error"},
    {"NetAgentPoll", true, &FaultTest::SendNetNews, {Seam::Poll, ENOMEM, 1, "Net"},
     "Failed to poll - Cannot allocate memory", Outcome::NoReport, "kel.net.x"},
    {"AgentReadAgain", true, &FaultTest::SendReport, {Seam::Read, EAGAIN, 1, "Generic"}, "", Outcome::Delivered, ""},
    {"AgentRead", true, &FaultTest::SendReport, {Seam::Read, EIO, 1, "Generic"},
     "Failed to get Kel", Outcome::Dropped, "kel.external.error"},
    {"AgentHeader", true, &FaultTest::SendReport, {Seam::Memory, ENOMEM, 1, "Generic", "", 32},
     "Failed to get Kel", Outcome::Dropped, "kel.external.error"},
    {"NetAgentRead", true, &FaultTest::SendNetNews, {Seam::Read, EIO, 1, "Net"},
     "Failed to get Kel", Outcome::NoReport, "kel.net.x"},
    {"ExceptionInAgent", true, &FaultTest::SendManySwapLosses, {Seam::Memory, ENOMEM, 1, "SWAP", "", 72},
     "Exception (std::bad_alloc) in agent function(0x", Outcome::NoReport, "kel.swap.systemSwap.isPDL.removed"},

    {"EventBuffer", true, &FaultTest::SendReport, {Seam::Memory, ENOMEM, 1, "Generic", "", 1171},
     "Failed to allocate 1171 bytes for prob buffer.", Outcome::Dropped, ""},
    {"EventBufferGrowth", true, &FaultTest::SendLongReport, {Seam::Memory, ENOMEM, 1, "Generic", "", 2342},
     "Failed to allocate 2342 bytes for prob buffer.", Outcome::Dropped, ""},
    {"EventSocket", true, &FaultTest::SendReport, {Seam::Socket, EMFILE, 1, "Generic"}, kQueued, Outcome::Queued, ""},
    {"EventConnect", true, &FaultTest::SendReport, {Seam::Connect, ECONNREFUSED}, kQueued, Outcome::Queued, ""},
    {"EventConnectAgain", true, &FaultTest::SendReport, {Seam::Connect, EAGAIN}, "", Outcome::Delivered, ""},
    {"EventSend", true, &FaultTest::SendReport, {Seam::Send, EPIPE}, kQueued, Outcome::Queued, ""},
    {"EventSendNoSpace", true, &FaultTest::SendReport, {Seam::Send, ENOBUFS}, kQueued, Outcome::Queued, ""},
    {"EventSendAgain", true, &FaultTest::SendReport, {Seam::Send, EAGAIN}, "", Outcome::Delivered, ""},

    {"TraceServeThread", true, &FaultTest::ConnectTraceClient, {Seam::Thread, EAGAIN},
     "pthread_create failed: Resource temporarily unavailable", Outcome::NoReport, ""},
    {"TraceWriterThread", true, &FaultTest::ConnectTraceClient, {Seam::Thread, EAGAIN, 2},
     "pthread_create failed: Resource temporarily unavailable", Outcome::NoReport, ""},
    {"TraceWrite", true, &FaultTest::ConnectTraceClient, {Seam::Send, EIO, 1, "keld"},
     "Unexpected write error Input/output error", Outcome::NoReport, ""},
    {"TraceWriteToNobody", true, &FaultTest::ConnectTraceClient, {Seam::Send, EPIPE, 1, "keld"}, "", Outcome::NoReport, ""},
    {"TraceRead", true, &FaultTest::ConnectTraceClient, {Seam::Read, EIO, 1, "keld"}, "", Outcome::NoReport, ""},
};
// clang-format on

class GoesOnTest : public FaultTest, public testing::WithParamInterface<std::tuple<GoesOnRow, Times>> {};

TEST_P(GoesOnTest, CostsNoMoreThanItMust)
{
    const GoesOnRow &row = std::get<GoesOnRow>(GetParam()); // clang captures no binding
    const Times times = std::get<Times>(GetParam());
    if (!CanFail(row.fault.seam)) GTEST_SKIP();
    if (row.running) LaunchAndCount();
    faults.Arm(row.fault, times);
    if (!row.running) Launch(kFaultyDaemon);
    (this->*row.stimulus)();
    EXPECT_TRUE(WaitUntil([&] { return faults.Failed(row.fault.seam) > 0; }));
    ExpectLine(row.line);
    faults.Disarm();
    AwaitChannels();

    if (row.outcome == Outcome::Delivered) {
        EXPECT_EQ(Reported(Texts{"stimulus"}), WaitForEvents(1));
    }
    ExpectServes(row.lost);
    service.reset();
    if (row.running) ExpectNothingLeft(*row.lost == '\0' ? 0 : 1);
}

INSTANTIATE_TEST_SUITE_P(Call, GoesOnTest,
                         testing::Combine(testing::ValuesIn(kGoesOnRows),
                                          testing::Values(Times::Once, Times::ForEver)),
                         [](const auto &param) {
                             return std::get<GoesOnRow>(param.param).name +
                                    testing::PrintToString(std::get<Times>(param.param));
                         });

// ---- Threads ----------------------------------------------------------------------------------------

TEST_F(FaultTest, WithoutTheAlarmThreadEventsArePosted)
{
    faults.Arm({Seam::Thread, EAGAIN, kAlarmThread}, Times::Once);
    LaunchAndCount();
    EXPECT_EQ(1, faults.Failed(Seam::Thread));
    EXPECT_EQ(1U + kAgents + kSanitizerThreads, threads);
}

TEST_F(FaultTest, AgentWithoutAThreadIsMissedAlone)
{
    faults.Arm({Seam::Thread, EAGAIN, kFirstAgentThread + 2}, Times::Once);
    LaunchAndCount();
    EXPECT_EQ(1U, daemon->Log().LinesWith("Failed to create thread 0x").size());
    ExpectLine(" (id:2 err:11 Resource temporarily unavailable)");
    EXPECT_EQ(2U + kAgents - 1 + kSanitizerThreads, threads);
    ExpectServes("kel.storage.apd.x");
}

TEST_F(FaultTest, WithoutAnyAgentObservationsAreStillTraced)
{
    faults.Arm({Seam::Thread, EAGAIN, kFirstAgentThread}, Times::ForEver);
    Launch(kFaultyDaemon);
    ASSERT_TRUE(daemon->WaitUntilReady());
    EXPECT_TRUE(daemon->Log().WaitForLines(" (id:0 err:11 Resource temporarily unavailable)", kAgents));
    faults.Disarm();
    TraceClient client(host.Path("keld-trace.sock"));
    EXPECT_EQ(Texts{}, client.History());
    SendReport();
    EXPECT_NE(std::string::npos, client.Line().find(",IN,"));
    EXPECT_EQ(0, daemon->Terminate());
    EXPECT_EQ(Texts{}, receiver.DrainTexts());
}

// ---- Descriptors ------------------------------------------------------------------------------------

// Nobody else's: the daemon itself has none left.
TEST_F(FaultTest, WithoutDescriptorsConnectionsAreTurnedAwayUntilThereAreSomeAgain)
{
    LaunchAndCount();
    SetDescriptorLimit(LowestFreeDescriptor());
    ExpectTurnedAway();
    ExpectIdle();
    ExpectNothingLeft(0);

    SetDescriptorLimit(1024);
    ExpectAccepted();
    ExpectServes("");
    ExpectNothingLeft(0);
}

// The whole host has none: whatever the daemon gives up, somebody else takes.
class AcceptTest : public FaultTest, public testing::WithParamInterface<int> {
public:
    void SetUp() override
    {
        LaunchAndCount();
        faults.Arm({Seam::Accept, GetParam()}, Times::ForEver);
    }
    void ExpectToWait()
    {
        EXPECT_TRUE(WaitUntil([&] { return faults.Failed(Seam::Accept) > 10; }));
        ExpectIdle();
        ExpectServes("");
        faults.Disarm();
    }
};

TEST_P(AcceptTest, ProducersWaitWhileNothingCanBeAccepted)
{
    const RawProducer producer(kUser);
    ExpectToWait();
    ExpectAccepted();
}

TEST_P(AcceptTest, TraceClientsWaitWhileNothingCanBeAccepted)
{
    const TraceClient client(host.Path("keld-trace.sock"));
    ExpectToWait();
    ExpectAccepted();
    ExpectLine("Trace accept() failed: " + std::string(strerrordesc_np(GetParam())));
}

INSTANTIATE_TEST_SUITE_P(Error, AcceptTest, testing::Values(EMFILE, ENFILE, ENOMEM, ENOBUFS),
                         [](const auto &param) { return std::string(strerrorname_np(param.param)); });

// ---- Memory -----------------------------------------------------------------------------------------

TEST_F(FaultTest, WithoutMemoryForConnectionsProducersAreTurnedAway)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    faults.Arm({Seam::Memory, ENOMEM, 1, "keld", "", kPollSlots * sizeof(pollfd)}, Times::ForEver);
    LaunchAndCount();
    EXPECT_LT(0, faults.Failed(Seam::Memory));
    EXPECT_TRUE(RawProducer(kUser).WaitUntilClosed());
    ExpectServes("");
    ExpectNothingLeft(0);
}

TEST_F(FaultTest, WithoutMemoryForALargerBufferWhatWaitsThereIsLost)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    LaunchAndCount();
    faults.Arm({Seam::Memory, ENOMEM, 1, "keld", "", 12288}, Times::Once);
    SendMany("kel.external.lost", 100);
    EXPECT_TRUE(WaitUntil([&] { return faults.Failed(Seam::Memory) > 0; }));
    ExpectServes("");
    EXPECT_EQ(Texts{}, daemon->Log().LinesWith("kel.external.lost"));
    SendMany("kel.external.found", 100);
    EXPECT_TRUE(daemon->Log().WaitForLines("kel.external.found", 100));
}

// ---- The receiver -----------------------------------------------------------------------------------

class RetryFaultTest : public FaultTest {
public:
    void SetUp() override { LaunchAndCount(kFaultyHandClockDaemon); }

    void Queue(const Fault &fault, Times times)
    {
        faults.Arm(fault, times);
        SendReport();
        EXPECT_TRUE(daemon->Log().WaitForLines(kQueued, ++queued)) << daemon->Log().Raw();
    }

    std::size_t queued = 0;
};

TEST_F(RetryFaultTest, EventThatCouldNotBeSentOnceIsSentWithTheFirstRetry)
{
    for (const Fault &fault : {Fault{Seam::Socket, EMFILE}, Fault{Seam::Connect, ECONNREFUSED},
                               Fault{Seam::Send, EPIPE}, Fault{Seam::Send, ENOBUFS}}) {
        Queue(fault, Times::Once);
        daemon->Advance(180);
        EXPECT_EQ(Reported(Texts{"stimulus"}), WaitForEvents(1));
    }
    EXPECT_EQ(4U, daemon->Log()
                      .LinesWith("Successfully sent event (nox.problem.3rdParty.error) after 1 failure.")
                      .size());
    ExpectNothingLeft(0);
}

TEST_F(RetryFaultTest, EventThatCanNeverBeSentIsAbandonedAndTheNextOneSent)
{
    Queue({Seam::Send, ENOBUFS}, Times::ForEver);
    daemon->Advance(5 * 180);
    ExpectLine("Failed to send event (nox.problem.3rdParty.error); 5 failures so far.");
    ExpectLine("Abandoned event (nox.problem.3rdParty.error) after 6 failures.");
    faults.Disarm();
    daemon->Advance(180);
    ExpectServes("");
    ExpectNothingLeft(0);
}

TEST_F(RetryFaultTest, WithoutMemoryToKeepItAnEventIsLost)
{
    if (!CanFail(Seam::Memory)) GTEST_SKIP();
    SendReport();
    const std::size_t bytes = receiver.WaitForRaw(1).at(0).size();
    faults.Arm({Seam::Memory, ENOMEM, 1, "Generic", "", bytes}, Times::Once);
    Queue({Seam::Connect, ECONNREFUSED}, Times::Once);
    EXPECT_TRUE(WaitUntil([&] { return faults.Failed(Seam::Memory) > 0; }));
    daemon->Advance(180);
    ExpectServes("");
}

TEST_F(FaultTest, ReceiverThatIsAlwaysBusyDoesNotHoldTheExitUp)
{
    LaunchAndCount();
    faults.Arm({Seam::Connect, EAGAIN}, Times::ForEver);
    SendReport();
    EXPECT_TRUE(WaitUntil([&] { return faults.Failed(Seam::Connect) > 0; }));
    EXPECT_EQ(0, daemon->Terminate());
    ExpectLine(kQueued);
}

// ---- The host inventory -----------------------------------------------------------------------------

struct SwapRow {
    const char *name;
    Fault fault;
    const char *line;
};

// clang-format off
const SwapRow kSwapRows[] = {
    {"Read", {Seam::Open, EIO, 1, "", "host/swap/failure"}, "System swap: cannot read swap/failure: Input/output error"},
    {"Count", {Seam::Open, EMFILE, 1, "", "host/swap/reconfigured"}, "System swap: cannot read swap/reconfigured: Too many open files"},
    {"Write", {Seam::Write, ENOSPC, 1, "SWAP"}, "System swap: cannot write swap/reconfigured: No space left on device"},
};
// clang-format on

class SwapInventoryTest : public FaultTest, public testing::WithParamInterface<SwapRow> {};

TEST_P(SwapInventoryTest, HostThatCannotBeReadOrWrittenIsAProblemAndNotTheEnd)
{
    host.Host("storage/filesystems/1/name", "gold");
    host.Host("storage/filesystems/1/uuid", "4a8b");
    LaunchAndCount();
    faults.Arm(GetParam().fault, Times::Once);
    SendSwapLoss();
    EXPECT_EQ(Texts{"nox.problem.swap.systemSwap.isPDL.removed.reconfig.failure.2(gold)"},
              WaitForEvents(1));
    ExpectLine(GetParam().line);
    EXPECT_EQ(std::nullopt, host.HostText("swap/reconfigured"));

    SendSwapLoss();
    ExpectLine("System swap has been reconfigured.");
    EXPECT_EQ("1", host.HostText("swap/reconfigured"));
    ExpectServes("");
    ExpectNothingLeft(0);
}

INSTANTIATE_TEST_SUITE_P(Call, SwapInventoryTest, testing::ValuesIn(kSwapRows),
                         [](const auto &param) { return std::string(param.param.name); });

} // namespace
