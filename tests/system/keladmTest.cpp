// The companion program beside the real daemon: what it shows, and how it ends when something goes away.

#include "systemTest.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

using nlohmann::json;
using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

struct Launch {
    bool terminal = false; // a session of its own on a terminal, which CloseOutput hangs up
    bool ignoresHangup = false;
    rlim_t fileBytesMax = RLIM_INFINITY;
    std::string input{};
    std::string temporary{}; // the folder for what it makes
};

// The program as a process. Its output goes through a pipe, or a terminal, that a test may close.
class Keladm {
public:
    explicit Keladm(const Texts &arguments, const Launch &how = {})
    {
        int output[2], alive[2];
        EXPECT_EQ(0, how.terminal ? Terminal(output) : pipe2(output, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(alive, O_CLOEXEC));
        const int input = memfd_create("input", MFD_CLOEXEC);
        EXPECT_EQ(static_cast<ssize_t>(how.input.size()),
                  pwrite(input, how.input.data(), how.input.size(), 0));
        Texts words{KELADM_BINARY};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);

        mPid = fork();
        if (mPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(how.terminal ? output[1] : input, STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            dup2(mErrors.Fd(), STDERR_FILENO);
            fcntl(alive[1], F_SETFD, 0); // stays with all that it starts
            if (how.terminal && (setsid() < 0 || ioctl(STDOUT_FILENO, TIOCSCTTY, 0) != 0)) _exit(126);
            if (how.ignoresHangup) std::signal(SIGHUP, SIG_IGN);
            if (!how.temporary.empty()) setenv("TMPDIR", how.temporary.c_str(), 1);
            const rlimit limit{how.fileBytesMax, how.fileBytesMax};
            setrlimit(RLIMIT_FSIZE, &limit);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(input);
        close(output[1]);
        close(alive[1]);
        mOutput = output[0];
        mAlive = alive[0];
        fcntl(mOutput, F_SETFL, O_NONBLOCK);
    }

    ~Keladm()
    {
        if (mPid > 0) {
            Signal(SIGKILL);
            waitpid(mPid, nullptr, 0);
        }
        CloseOutput();
        close(mAlive);
    }

    Keladm(const Keladm &) = delete;
    Keladm &operator=(const Keladm &) = delete;

    // Everything written so far.
    const std::string &Output()
    {
        char piece[4096];
        for (ssize_t got; mOutput >= 0 && (got = read(mOutput, piece, sizeof piece)) > 0;)
            mText.append(piece, static_cast<std::size_t>(got));
        return mText;
    }
    std::string Errors() const { return mErrors.Text(); }

    // True as soon as part has been written count times.
    bool WaitForOutput(const std::string &part, std::size_t count = 1)
    {
        return WaitUntil([&] { return Count(Output(), part) >= count; });
    }

    // Nobody reads any more; a terminal is hung up.
    void CloseOutput()
    {
        if (mOutput >= 0) close(mOutput);
        mOutput = -1;
    }

    void Signal(int signal) { kill(mPid, signal); }

    // True once it takes no more: blocked in a system call, and nothing new for a while.
    bool WaitUntilStuck()
    {
        std::size_t before = 0;
        int looks = 0;
        return WaitUntil([&] {
            std::string state;
            std::ifstream stat("/proc/" + std::to_string(mPid) + "/stat");
            for (int field = 1; field <= 3; field++)
                stat >> state;
            const bool still = state == "S" && Output().size() == before && before > 0;
            before = mText.size();
            looks = still ? looks + 1 : 0;
            return looks == 20;
        });
    }

    // True once nothing more goes into the pipe that is not read.
    bool WaitUntilPipeIsFull() const
    {
        return WaitUntil([&] {
            int waiting = 0;
            return ioctl(mOutput, FIONREAD, &waiting) == 0 && waiting > 60000;
        });
    }

    // The exit status; 128 and the signal for an end by one. Its output is read meanwhile, or not.
    int WaitForExit(bool reading = true)
    {
        int status = 0;
        const bool ended = WaitUntil([&] {
            if (reading) Output();
            return waitpid(mPid, &status, WNOHANG) == mPid;
        });
        if (!ended) {
            ADD_FAILURE() << "keladm does not end:\n" << Output() << Errors();
            return -1;
        }
        mPid = -1;
        Output();
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    // Neither it nor anything that it started lives any more.
    bool WaitUntilAllIsGone() const
    {
        pollfd end{mAlive, POLLIN, 0};
        return poll(&end, 1, static_cast<int>(std::chrono::milliseconds(kWaitLimit).count())) == 1;
    }

private:
    static int Terminal(int ends[2])
    {
        ends[0] = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (ends[0] < 0 || grantpt(ends[0]) != 0 || unlockpt(ends[0]) != 0) return -1;
        ends[1] = open(ptsname(ends[0]), O_RDWR | O_NOCTTY | O_CLOEXEC);
        return ends[1] < 0 ? -1 : 0;
    }

    static std::size_t Count(const std::string &text, const std::string &part)
    {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size())
            ++count;
        return count;
    }

    pid_t mPid = -1;
    int mOutput = -1;
    int mAlive = -1;
    CapturedText mErrors;
    std::string mText;
};

Texts LinesOf(const std::string &text)
{
    Texts lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        lines.push_back(line);
    return lines;
}

std::string ReadAll(const std::string &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

class KeladmSystemTest : public SystemTest {
protected:
    // Its tests have keladm receive in the place of the fixture's own receiver.
    void SetUp() override
    {
        receiver.Stop();
        setenv("KELD_DAEMON", KELD_BINARY, 1);
        unsetenv("KELD_CATALOGUE");
    }

    // A connection to whoever receives.
    int ConnectToReceiver() const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        host.Path("carad-pling.sock").copy(address.sun_path, sizeof address.sun_path - 1);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) return fd;
        close(fd);
        return -1;
    }

    // True as soon as somebody listens. Asking is a connection that brings nothing, which does not count.
    bool WaitForListener() const
    {
        return WaitUntil([&] {
            const int fd = ConnectToReceiver();
            if (fd >= 0) close(fd);
            return fd >= 0;
        });
    }

    void SendToReceiver(const std::string &bytes) const
    {
        const int fd = ConnectToReceiver();
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
        close(fd);
    }

    bool SocketIsThere() const { return std::filesystem::exists(host.Path("carad-pling.sock")); }

    // Runs to its end.
    static int Run(const Texts &arguments) { return Keladm(arguments).WaitForExit(); }
};

TEST_F(KeladmSystemTest, WhatIsSentIsTracedReceivedAndRendered)
{
    Keladm receive({"receive", "--output", host.Path("events.jsonl")});
    ASSERT_TRUE(WaitForListener());
    Start(kShippedDaemon);
    ASSERT_EQ(0, Run({"host", "set", "net/portgroups/Production", "vSwitch0"}));
    ASSERT_EQ(0, Run({"send", "kel.external.mark0"}));
    Keladm trace({"trace", "--history"}), out({"trace", "--out", "--json", "--history", "--count", "2"});
    ASSERT_TRUE(trace.WaitForOutput("kel.external.mark0")) << trace.Errors();

    ASSERT_EQ(0, Run({"send", "-c", "3", "kel.net.heap.belowthreshold", "netGPHeap", "3"}));
    ASSERT_TRUE(receive.WaitForOutput("\n"));
    ASSERT_EQ(0,
              Run({"send", "kel.external.error", "-m", "%s %s %s", "acme-raid", "kb/1042", "battery\n"}));
    ASSERT_TRUE(receive.WaitForOutput("\n", 2));
    EXPECT_THAT(
        LinesOf(receive.Output()),
        ElementsAre(EndsWith("problem nox.problem.net.heap.belowthreshold  netGPHeap free size dropped "
                             "below 3 percent."),
                    AllOf(HasSubstr(" problem nox.problem.3rdParty.error  A 3rd party component, "
                                    "acme-raid, running on NOX"),
                          EndsWith("The message reported is: battery\\n."))));
    EXPECT_THAT(receive.Output(), Not(HasSubstr("\x1b"))) << "colours, and no terminal";

    EXPECT_EQ(0, out.WaitForExit()) << out.Errors();
    const json line = json::parse(LinesOf(out.Output()).at(1));
    EXPECT_EQ("out", line["direction"]);
    EXPECT_EQ("nox.problem.3rdParty.error", line["id"]);
    EXPECT_EQ(json({"acme-raid", "kb/1042", "acme-raid", "battery\n"}), line["arguments"]);
    ASSERT_TRUE(trace.WaitForOutput("OUT nox.problem.3rdParty.error"));
    EXPECT_THAT(trace.Output(),
                AllOf(HasSubstr(" IN  kel.net.heap.belowthreshold  \"netGPHeap\", 3\n"),
                      HasSubstr(" OUT nox.problem.net.heap.belowthreshold  \"netGPHeap\", 3\n")));

    receive.Signal(SIGINT);
    EXPECT_EQ(0, receive.WaitForExit());
    EXPECT_FALSE(SocketIsThere());
    const json kept = json::parse(LinesOf(ReadAll(host.Path("events.jsonl"))).at(0));
    EXPECT_EQ("netGPHeap free size dropped below 3 percent.", kept["text"]);
    EXPECT_EQ(json({"netGPHeap", 3}), kept["arguments"]);
}

TEST_F(KeladmSystemTest, AMalformedRecordIsShownWithTheReasonAndTheReceiverGoesOn)
{
    Keladm receive({"receive", "--count", "1", "--output", host.Path("events.jsonl")});
    ASSERT_TRUE(WaitForListener());
    SendToReceiver("no event");
    SendToReceiver(std::string(200000, 'x'));
    Start(kShippedDaemon);
    SendReport(kUser, "an event");
    EXPECT_EQ(0, receive.WaitForExit());
    EXPECT_THAT(
        LinesOf(receive.Output()),
        ElementsAre(AllOf(StartsWith("malformed record 8: byte 8: "), EndsWith(": 6e6f206576656e74")),
                    AllOf(StartsWith("malformed record "), HasSubstr(": more than 131072 bytes; "),
                          EndsWith(" more bytes)")),
                    EndsWith("is: an event.")));
    const json kept = json::parse(LinesOf(ReadAll(host.Path("events.jsonl"))).at(0));
    EXPECT_EQ("6e6f206576656e74", kept["hex"]);
}

TEST_F(KeladmSystemTest, ASecondReceiverIsRefused)
{
    Keladm first({"receive"});
    ASSERT_TRUE(WaitForListener());
    Keladm second({"receive"});
    EXPECT_EQ(3, second.WaitForExit());
    EXPECT_THAT(second.Errors(), HasSubstr("a receiver is listening there already"));
    EXPECT_TRUE(SocketIsThere());
}

TEST_F(KeladmSystemTest, AReaderThatHasHadEnoughEndsTheWatchersWell)
{
    Keladm receive({"receive"});
    ASSERT_TRUE(WaitForListener());
    Start(kShippedDaemon);
    Keladm trace({"trace", "--history"});
    SendReport(kUser, "first");
    ASSERT_TRUE(trace.WaitForOutput("first"));
    ASSERT_TRUE(receive.WaitForOutput("first"));
    trace.CloseOutput(); // nothing need come any more
    receive.CloseOutput();
    EXPECT_EQ(0, trace.WaitForExit()) << trace.Errors();
    EXPECT_EQ(0, receive.WaitForExit()) << receive.Errors();
    EXPECT_FALSE(SocketIsThere());
    EXPECT_EQ("", trace.Errors() + receive.Errors());

    Keladm events({"events"}); // more than a pipe holds
    ASSERT_TRUE(WaitUntil([&] { return !events.Output().empty(); }));
    events.CloseOutput();
    EXPECT_EQ(0, events.WaitForExit()) << events.Errors();
}

TEST_F(KeladmSystemTest, AReaderThatReadsNothingHoldsNoSignalUp)
{
    Start(kShippedDaemon);
    Keladm trace({"trace", "--history"});
    for (int i = 0; i < 3; ++i)
        SendReport(kUser, std::string(60000, 'x'));
    EXPECT_TRUE(trace.WaitUntilPipeIsFull());
    trace.Signal(SIGTERM);
    EXPECT_EQ(0, trace.WaitForExit(false));
}

TEST_F(KeladmSystemTest, AClosedTerminalEndsTheWatchersWell)
{
    Keladm receive({"receive"}, {.terminal = true});
    ASSERT_TRUE(WaitForListener());
    Start(kShippedDaemon);
    Keladm trace({"trace", "--history"}, {.terminal = true});
    SendReport(kUser, "first");
    ASSERT_TRUE(trace.WaitForOutput("first"));
    ASSERT_TRUE(receive.WaitForOutput("\x1b[31mproblem\x1b[0m nox.problem.3rdParty.error"))
        << "a terminal gets colours";
    trace.CloseOutput();
    receive.CloseOutput();
    EXPECT_EQ(0, trace.WaitForExit()) << trace.Errors();
    EXPECT_EQ(0, receive.WaitForExit()) << receive.Errors();
    EXPECT_FALSE(SocketIsThere());
}

TEST_F(KeladmSystemTest, ASignalThatTheStarterIgnoresIsIgnored)
{
    Keladm receive({"receive"}, {.ignoresHangup = true});
    ASSERT_TRUE(WaitForListener());
    Start(kShippedDaemon);
    receive.Signal(SIGHUP);
    SendReport(kUser, "after the terminal");
    EXPECT_TRUE(receive.WaitForOutput("after the terminal"));
    receive.Signal(SIGTERM);
    EXPECT_EQ(0, receive.WaitForExit());
}

TEST_F(KeladmSystemTest, ADaemonThatGoesAwayIsSaid)
{
    Start(kShippedDaemon);
    Keladm trace({"trace", "--history"});
    Send(kUser, "kel.external.mark0", " ");
    ASSERT_TRUE(trace.WaitForOutput("kel.external.mark0"));
    daemon->Terminate(SIGKILL);
    EXPECT_EQ(3, trace.WaitForExit());
    EXPECT_EQ("keladm trace: the daemon has ended the trace\n", trace.Errors());

    // Its sockets are still there.
    ASSERT_TRUE(std::filesystem::exists(host.Path("keld-trace.sock")));
    for (const Texts &arguments :
         {Texts{"trace"}, Texts{"send", "kel.x"}, Texts{"send", "-c", "3", "kel.x"}}) {
        Keladm keladm(arguments);
        EXPECT_EQ(3, keladm.WaitForExit());
        EXPECT_THAT(keladm.Errors(), HasSubstr("no daemon serves " + host.Path()));
    }
}

TEST_F(KeladmSystemTest, ATimeOutEndsAWatcherAndTellsWhatIsMissing)
{
    Start(kShippedDaemon);
    EXPECT_EQ(0, Run({"trace", "--timeout", "1ms"}));
    Keladm trace({"trace", "--timeout", "1ms", "--count", "2"});
    EXPECT_EQ(1, trace.WaitForExit());
    EXPECT_EQ("keladm trace: 0 of 2 lines came\n", trace.Errors());
}

// The file takes some lines and a part of one.
TEST_F(KeladmSystemTest, AFullDiskUnderTheFileLosesNoEventOnTheTerminal)
{
    const std::string file = host.Path("events.jsonl");
    Keladm receive({"receive", "--output", file}, {.fileBytesMax = 2000});
    ASSERT_TRUE(WaitForListener());
    Start(kShippedDaemon);
    for (int i = 0; i < 20; ++i)
        SendReport(kUser, "report " + std::to_string(i) + " of 20");
    EXPECT_TRUE(receive.WaitForOutput(" of 20", 20)) << receive.Output();
    receive.Signal(SIGTERM);
    EXPECT_EQ(1, receive.WaitForExit());
    EXPECT_EQ("keladm receive: " + file +
                  ": File too large; nothing more is kept there, events are still shown\n",
              receive.Errors());
    const Texts kept = LinesOf(ReadAll(file));
    ASSERT_THAT(kept, Not(IsEmpty()));
    for (const std::string &line : kept)
        EXPECT_TRUE(json::accept(line)) << line;
    EXPECT_THAT(ReadAll(file), EndsWith("\n"));

    Keladm full({"receive", "--output", "/dev/full", "--count", "1"});
    ASSERT_TRUE(WaitForListener());
    SendReport(kUser, "one more");
    EXPECT_EQ(1, full.WaitForExit());
    EXPECT_THAT(full.Output(), HasSubstr("one more"));
    EXPECT_THAT(full.Errors(), HasSubstr("/dev/full: No space left on device"));
    EXPECT_FALSE(SocketIsThere());
}

TEST_F(KeladmSystemTest, AScenarioIsPlayedFromStandardInputAtTheSpeedAskedFor)
{
    receiver.Start();
    Start(kShippedDaemon);
    Keladm replay({"replay", "--speed", "3600000", "-"},
                  {.input = "host set net/portgroups/Production vSwitch7\n"
                            "pause 1h\n"
                            "observe @async-3 kel.net.pg.uplink.transition.down \"%s %s %d %d\" "
                            "vmnic2 Production 0 1\n"
                            "expect within 10s nox.problem.net.connectivity.lost ...\n"});
    EXPECT_EQ(0, replay.WaitForExit()) << replay.Errors();
    EXPECT_EQ(Texts{"nox.problem.net.connectivity.lost(vSwitch7, vmnic2, Production)"},
              receiver.WaitForTexts(1));
}

TEST_F(KeladmSystemTest, AScenarioWithoutADaemonChangesNothing)
{
    Keladm replay({"replay", "-"}, {.input = "host set net/portgroups/Production vSwitch7\n"
                                             "repeat 2\n"
                                             "observe kel.net.vmnic.linkstate.down vmnic0\n"
                                             "end\n"});
    EXPECT_EQ(3, replay.WaitForExit());
    EXPECT_EQ("", replay.Output());
    EXPECT_EQ(std::nullopt, host.HostText("net/portgroups/Production"));
}

TEST_F(KeladmSystemTest, AScenarioCanBeInterruptedWhileTheDaemonTakesNothing)
{
    Start(kShippedDaemon);
    daemon->Signal(SIGSTOP);
    Keladm replay({"replay", "-"}, {.input = "repeat 100000\n"
                                             "observe @async-3 kel.net.vmnic.linkstate.down vmnic0\n"
                                             "end\n"});
    EXPECT_TRUE(replay.WaitUntilStuck());
    replay.Signal(SIGINT);
    EXPECT_EQ(1, replay.WaitForExit());
    EXPECT_EQ("keladm replay: interrupted\n", replay.Errors());
    daemon->Signal(SIGCONT);
}

// Whatever ends it: no folder, no daemon.
TEST_F(KeladmSystemTest, ACheckThatIsInterruptedLeavesNothingBehind)
{
    const std::string folder = host.Path("t");
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const std::string scenario = host.Path("long.kel");
    std::ofstream(scenario) << "observe kel.net.vmnic.linkstate.down vmnic0\npause 10m\n";
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Keladm check({"replay", "--check", scenario}, {.terminal = signal == SIGHUP, .temporary = folder});
        ASSERT_TRUE(check.WaitForOutput("pause 10m")) << check.Output() << check.Errors();
        EXPECT_FALSE(std::filesystem::is_empty(folder));
        if (signal == SIGHUP)
            check.CloseOutput();
        else
            check.Signal(signal);
        EXPECT_EQ(1, check.WaitForExit());
        EXPECT_EQ("keladm replay: interrupted\n", check.Errors());
        EXPECT_TRUE(check.WaitUntilAllIsGone());
        EXPECT_TRUE(std::filesystem::is_empty(folder));
    }
}

} // namespace
