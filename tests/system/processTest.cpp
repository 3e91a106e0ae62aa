// The daemon as a process: options, start, and who else runs.
#include "systemTest.h"

#include <fcntl.h>
#include <filesystem>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class ProcessTest : public SystemTest {
protected:
    // The exit status of a daemon that goes no further than its start.
    int Run(const Texts &options)
    {
        daemon.emplace(kShippedDaemon, options);
        const int status = daemon->WaitForExit();
        EXPECT_FALSE(std::filesystem::exists(host.Path("kel")));
        EXPECT_FALSE(std::filesystem::exists(host.Path("keld-trace.sock")));
        return status;
    }
};

TEST_F(ProcessTest, Kept_EveryOptionButOneShowsTheUsageAndOpensNothing)
{
    const std::string usage = "Usage: " + kShippedDaemon.path +
                              " [options]\nvalid options are:\n\t--help|-h - display this help\n";
    for (const Texts &options : {Texts{"-h"}, Texts{"--help"}, Texts{"-l", "5"}, Texts{"--loglevel=5"},
                                 Texts{"-t"}, Texts{"-e", "--test"}}) {
        EXPECT_EQ(0, Run(options)) << options.back();
        EXPECT_EQ(usage, daemon->Output()) << options.back();
    }
    for (const Texts &refused : {Texts{"-x"}, Texts{"--bogus"}, Texts{"-l"}}) {
        EXPECT_EQ(0, Run(refused)) << refused.back();
        EXPECT_TRUE(daemon->Output().ends_with(usage)) << daemon->Output();
    }
    EXPECT_EQ(std::nullopt, host.HostText("kernel/options/Misc/KelAsyncEnable"));
    Start(kShippedDaemon, {"-e", "--enablekels"});
    EXPECT_EQ("1", host.HostText("kernel/options/Misc/KelAsyncEnable"));
}

TEST_F(ProcessTest, ForeignKernelSignatureIsFatal)
{
    host.Host("kernel/signature", "deadbeef");
    host.Host("kernel/builddate", "Mar  1 2026 12:00:00");
    EXPECT_EQ(128 + SIGABRT, Run({}));
    const std::string message =
        "md5 signature mismatch with running kernix built on Mar  1 2026 12:00:00 (my build date: 0.1.0)";
    EXPECT_EQ("Keld - Panic: " + message + "\n", daemon->Output());
    EXPECT_EQ((Texts{"Keld - Panic: ", message}), daemon->Log().Lines());
}

TEST_F(ProcessTest, UnusableRunDirectoryIsAStatusAndALine)
{
    const auto expectReason = [&](const Texts &options, const std::string &reason) {
        for (const std::string &unusable :
             {"/" + std::string(80, 'r'), std::string("run"), std::string()}) {
            setenv("KALTOR_RUN_DIR", unusable.c_str(), 1);
            EXPECT_EQ(22, Run(options)) << daemon->Output();
            setenv("KALTOR_RUN_DIR", host.Path().c_str(), 1);
            EXPECT_EQ((Texts{reason, "Exiting. rc:22"}), daemon->Log().Lines());
        }
    };
    expectReason({}, "KALTOR_RUN_DIR must be an absolute path of at most 80 bytes");
    expectReason({"-e"}, "option Misc/KelAsyncEnable cannot be set: Invalid argument");
}

TEST_F(ProcessTest, AnotherDaemonLeavesTheFirstAloneAndTakesOverOnceItIsKilled)
{
    Start(kShippedDaemon);
    {
        Daemon second(kShippedDaemon);
        EXPECT_EQ(16, second.WaitForExit());
    }
    daemon->Signal(SIGPIPE); // is ignored
    SendReport(7, "still here");
    SendReport(kUser, "here too");
    EXPECT_EQ(2U, receiver.WaitFor(2).size());
    EXPECT_EQ(128 + SIGKILL, daemon->Terminate(SIGKILL));
    Start(kShippedDaemon);
    SendReport(0, "after a kill");
    EXPECT_EQ(Reported(Texts{"after a kill"}), receiver.WaitForTexts(1));
}

TEST_F(ProcessTest, ObservationsSentBeforeTheirAgentIsThereAreHandled)
{
    const std::string gate = host.Path("GenericCorrelat");
    ASSERT_EQ(0, mkfifo(gate.c_str(), 0600));
    daemon.emplace(kShippedDaemon, Texts{}, Texts{"KELD_THREAD_GATES=" + host.Path()});
    ASSERT_TRUE(daemon->WaitUntilReady()) << daemon->Log().Raw() << daemon->Output();
    Texts messages;
    for (const int context : {0, 9, 21, kUser}) {
        messages.push_back("early, context " + std::to_string(context));
        SendReport(context, messages.back());
    }
    // It waits for the last of its agents; otherwise it has read all that was sent, and waits for more.
    EXPECT_TRUE(WaitUntil([this] { return daemon->IsAsleep(); }));

    const int opened = open(gate.c_str(), O_RDWR | O_CLOEXEC);
    EXPECT_THAT(receiver.WaitForTexts(messages.size()),
                testing::UnorderedElementsAreArray(Reported(messages)));
    EXPECT_EQ(0, daemon->Terminate());
    close(opened);
}

} // namespace
