// The daemon as a process: options, start, signals, stop.
#include "systemTest.h"

#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class ProcessTest : public SystemTest {
protected:
    bool NothingOpened() const
    {
        return !std::filesystem::exists(host.Path("kel")) &&
               !std::filesystem::exists(host.Path("keld-trace.sock"));
    }
};

TEST_F(ProcessTest, EveryOptionButOneShowsTheUsageAndOpensNothing)
{
    const std::string usage = "Usage: " + kShippedDaemon.path +
                              " [options]\nvalid options are:\n\t--help|-h - display this help\n";
    for (const Texts &options : {Texts{"-h"}, Texts{"--help"}, Texts{"-l", "5"}, Texts{"--loglevel=5"},
                                 Texts{"-t"}, Texts{"-e", "--test"}}) {
        daemon.emplace(kShippedDaemon, options);
        EXPECT_EQ(0, daemon->WaitForExit()) << options.back();
        EXPECT_EQ(usage, daemon->Output()) << options.back();
    }
    for (const Texts &refused : {Texts{"-x"}, Texts{"--bogus"}, Texts{"-l"}}) {
        daemon.emplace(kShippedDaemon, refused);
        EXPECT_EQ(0, daemon->WaitForExit()) << refused.back();
        EXPECT_TRUE(daemon->Output().ends_with(usage)) << daemon->Output();
    }
    EXPECT_TRUE(NothingOpened());
    EXPECT_EQ(std::nullopt, host.HostText("kernel/options/Misc/KelAsyncEnable"));
}

TEST_F(ProcessTest, EnablingObservationsSetsTheKernelOption)
{
    Start(kShippedDaemon, {"-e", "--enablekels"});
    EXPECT_EQ("1", host.HostText("kernel/options/Misc/KelAsyncEnable"));
}

TEST_F(ProcessTest, ForeignKernelSignatureIsFatal)
{
    host.Host("kernel/signature", "deadbeef");
    host.Host("kernel/builddate", "Mar  1 2026 12:00:00");
    daemon.emplace(kShippedDaemon);
    EXPECT_EQ(128 + SIGABRT, daemon->WaitForExit());

    const std::string message =
        "md5 signature mismatch with running kernix built on Mar  1 2026 12:00:00 (my build date: 0.1.0)";
    EXPECT_EQ("Keld - Panic: " + message + "\n", daemon->Output());
    EXPECT_EQ((Texts{"Keld - Panic: ", message}), daemon->Log().Lines());
    EXPECT_TRUE(NothingOpened());
}

TEST_F(ProcessTest, UnusableRunDirectoryIsAStatusAndALine)
{
    const auto reasonFor = [this](const std::string &directory, const Texts &options) {
        setenv("KALTOR_RUN_DIR", directory.c_str(), 1);
        daemon.emplace(kShippedDaemon, options);
        EXPECT_EQ(22, daemon->WaitForExit()) << daemon->Output();
        setenv("KALTOR_RUN_DIR", host.Path().c_str(), 1);
        const Texts lines = daemon->Log().Lines();
        EXPECT_EQ((Texts{lines.at(0), "Exiting. rc:22"}), lines);
        return lines.at(0);
    };
    for (const std::string &unusable : {"/" + std::string(80, 'r'), std::string("run"), std::string()}) {
        EXPECT_EQ("KALTOR_RUN_DIR must be an absolute path of at most 80 bytes", reasonFor(unusable, {}));
        EXPECT_EQ("option Misc/KelAsyncEnable cannot be set: Invalid argument",
                  reasonFor(unusable, {"-e"}));
    }
}

TEST_F(ProcessTest, LogLinesCarryPriorityAndTime)
{
    Start(kHandClockDaemon, {});
    EXPECT_EQ(0, daemon->Terminate());
    EXPECT_TRUE(daemon->Log().Raw().ends_with(":00.000Z: Exiting. rc:0\n")) << daemon->Log().Raw();
    EXPECT_TRUE(daemon->Log().Raw().starts_with("<6>2026-03-01T")) << daemon->Log().Raw();
}

TEST_F(ProcessTest, SecondDaemonLeavesTheFirstAlone)
{
    Start(kShippedDaemon);
    Daemon second(kShippedDaemon);
    EXPECT_EQ(16, second.WaitForExit());

    SendReport(7, "still here");
    SendReport(kUser, "here too");
    EXPECT_EQ(2U, receiver.WaitFor(2).size());
}

TEST_F(ProcessTest, NextDaemonTakesOverWhatAKilledOneLeft)
{
    Start(kShippedDaemon);
    EXPECT_EQ(128 + SIGKILL, daemon->Terminate(SIGKILL));
    Start(kShippedDaemon);
    SendReport(0, "after a kill");
    EXPECT_EQ(Reported(Texts{"after a kill"}), receiver.WaitForTexts(1));
}

TEST_F(ProcessTest, BrokenPipeSignalIsIgnored)
{
    Start(kShippedDaemon);
    for (int i = 0; i < 10; ++i)
        daemon->Signal(SIGPIPE);
    SendReport(3, "still here");
    EXPECT_EQ(Reported(Texts{"still here"}), receiver.WaitForTexts(1));
}

TEST_F(ProcessTest, BothSignalsStopItWithTheSameLastLines)
{
    for (const int signal : {SIGTERM, SIGINT}) {
        Start(kShippedDaemon);
        EXPECT_EQ(0, daemon->Terminate(signal));
        const Texts lines = daemon->Log().Lines();
        ASSERT_LE(2U, lines.size());
        EXPECT_EQ((Texts{"Exiting due to signal.", "Exiting. rc:0"}), Texts(lines.end() - 2, lines.end()));
        EXPECT_FALSE(std::filesystem::exists(host.Path("kel/async-0.sock")));
    }
}

TEST_F(ProcessTest, ObservationsSentBeforeAnyAgentIsThereAreHandled)
{
    const std::string gate = host.Path("gate");
    ASSERT_EQ(0, mkfifo(gate.c_str(), 0600));
    daemon.emplace(kShippedDaemon, Texts{}, Texts{"KELD_THREAD_GATE=" + gate});
    ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Log().Raw() << daemon->Output();
    Texts messages;
    for (const int context : {0, 9, 21, kUser}) {
        messages.push_back("early, context " + std::to_string(context));
        SendReport(context, messages.back());
    }
    // It waits for its agents; otherwise it has read all that was sent, and waits for more.
    EXPECT_TRUE(WaitUntil([this] { return daemon->IsAsleep(); }));

    const int opened = open(gate.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_THAT(receiver.WaitForTexts(messages.size()),
                testing::UnorderedElementsAreArray(Reported(messages)));
    EXPECT_EQ(0, daemon->Terminate());
    close(opened);
}

} // namespace
