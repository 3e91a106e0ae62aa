// The companion program beside the real daemon: what it shows, and how it ends when something goes away.

#include "systemTest.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <kltlibs/uniquefd.h>
#include <nlohmann/json.hpp>
#include <poll.h>
#include <sstream>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

using nlohmann::json;
using testing::AllOf;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

struct Launch {
    bool ignoresHangup = false;
    rlim_t fileBytesMax = RLIM_INFINITY;
    std::string input = "/dev/null";
};

Texts LinesOf(std::istream &&text)
{
    Texts lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(line);
    return lines;
}

// The program as a process. Its output goes through a pipe that a test may close.
class Keladm {
public:
    explicit Keladm(const Texts &arguments, const Launch &how = {})
    {
        int output[2], alive[2];
        EXPECT_EQ(0, pipe2(output, O_CLOEXEC));
        EXPECT_EQ(0, pipe2(alive, O_CLOEXEC));
        Texts words{KELADM_BINARY};
        words.insert(words.end(), arguments.begin(), arguments.end());
        std::vector<char *> argv;
        for (std::string &word : words)
            argv.push_back(word.data());
        argv.push_back(nullptr);

        mPid = fork();
        if (mPid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(open(how.input.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
            dup2(output[1], STDOUT_FILENO);
            dup2(mErrors.Fd(), STDERR_FILENO);
            fcntl(alive[1], F_SETFD, 0); // stays with all that it starts
            if (how.ignoresHangup) std::signal(SIGHUP, SIG_IGN);
            const rlimit limit{how.fileBytesMax, how.fileBytesMax};
            setrlimit(RLIMIT_FSIZE, &limit);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(output[1]);
        close(alive[1]);
        mOutput.Reset(output[0]);
        mAlive.Reset(alive[0]);
        fcntl(output[0], F_SETFL, O_NONBLOCK);
    }

    ~Keladm()
    {
        if (mPid <= 0) return;
        Signal(SIGKILL);
        waitpid(mPid, nullptr, 0);
    }

    Keladm(const Keladm &) = delete;
    Keladm &operator=(const Keladm &) = delete;

    // Everything written so far.
    const std::string &Output()
    {
        char piece[4096];
        for (ssize_t got; mOutput && (got = read(mOutput.Get(), piece, sizeof piece)) > 0;)
            mText.append(piece, static_cast<std::size_t>(got));
        return mText;
    }
    Texts Lines() { return LinesOf(std::istringstream(Output())); }
    std::string Errors() const { return mErrors.Text(); }

    bool WaitForOutput(const std::string &part)
    {
        return WaitUntil([&] { return Output().find(part) != std::string::npos; });
    }

    // True once nothing more goes into the pipe, which is not read.
    bool WaitUntilPipeIsFull() const
    {
        return WaitUntil([&] {
            int waiting = 0;
            return ioctl(mOutput.Get(), FIONREAD, &waiting) == 0 && waiting > 60000;
        });
    }

    // Nobody reads any more.
    void CloseOutput() { mOutput.Reset(); }

    void Signal(int signal) { kill(mPid, signal); }

    // The exit status, once nothing that it started lives any more; 128 and the signal for an end by one.
    // Its output is read meanwhile, or not.
    int WaitForExit(bool reading = true)
    {
        pollfd end{mAlive.Get(), POLLIN, 0};
        const bool ended = WaitUntil([&] {
            if (reading) Output();
            return poll(&end, 1, 0) == 1;
        });
        EXPECT_TRUE(ended) << "keladm does not end:\n" << Output() << Errors();
        if (!ended) return -1;
        int status = 0;
        waitpid(std::exchange(mPid, -1), &status, 0);
        Output();
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t mPid = -1;
    UniqueFd mOutput, mAlive;
    CapturedText mErrors;
    std::string mText;
};

class KeladmSystemTest : public SystemTest {
protected:
    // Its tests have keladm receive in the place of the fixture's own receiver.
    void SetUp() override
    {
        receiver.Stop();
        setenv("KELD_DAEMON", KELD_BINARY, 1);
        unsetenv("KELD_CATALOGUE");
    }

    // Brings bytes to whoever receives, once somebody does. None are a connection that does not count.
    void SendToReceiver(const std::string &bytes = "") const
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        host.Path("carad-pling.sock").copy(address.sun_path, sizeof address.sun_path - 1);
        const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        ASSERT_TRUE(WaitUntil([&] {
            return connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0;
        }));
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    bool SocketIsThere() const { return std::filesystem::exists(host.Path("carad-pling.sock")); }

    // Runs to its end.
    static int Run(const Texts &arguments) { return Keladm(arguments).WaitForExit(); }
};

TEST_F(KeladmSystemTest, WhatIsSentIsTracedReceivedAndRendered)
{
    const std::string file = host.Path("events.jsonl");
    Keladm receive({"receive", "--output", file}, {.ignoresHangup = true});
    SendToReceiver("no event");
    Start(kShippedDaemon);
    ASSERT_EQ(0, Run({"send", "--force", "kel.external.mark0"}));
    Keladm trace({"trace", "--history"}), out({"trace", "--out", "--json", "--history", "--count", "2"});
    ASSERT_TRUE(trace.WaitForOutput("kel.external.mark0")) << trace.Errors();
    receive.Signal(SIGHUP); // which its starter ignores

    ASSERT_EQ(0, Run({"send", "-c", "3", "kel.net.heap.belowthreshold", "netGPHeap", "3"}));
    ASSERT_TRUE(receive.WaitForOutput("percent.\n"));
    ASSERT_EQ(0,
              Run({"send", "kel.external.error", "-m", "%s %s %s", "acme-raid", "kb/1042", "battery\n"}));
    ASSERT_TRUE(receive.WaitForOutput("battery\\n.\n"));
    EXPECT_THAT(receive.Lines(),
                ElementsAre("malformed record 8: byte 8: too few bytes for an event: 6e6f206576656e74",
                            EndsWith("problem nox.problem.net.heap.belowthreshold  netGPHeap free size "
                                     "dropped below 3 percent."),
                            AllOf(HasSubstr(" problem nox.problem.3rdParty.error  A 3rd party component, "
                                            "acme-raid, running on NOX"),
                                  EndsWith("The message reported is: battery\\n."))));

    EXPECT_EQ(0, out.WaitForExit()) << out.Errors();
    const json line = json::parse(out.Lines().at(1));
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
    const Texts kept = LinesOf(std::ifstream(file));
    ASSERT_EQ(3U, kept.size());
    EXPECT_EQ("6e6f206576656e74", json::parse(kept[0])["hex"]);
    EXPECT_EQ("netGPHeap free size dropped below 3 percent.", json::parse(kept[1])["text"]);
    EXPECT_EQ(json({"netGPHeap", 3}), json::parse(kept[1])["arguments"]);
}

TEST_F(KeladmSystemTest, WithoutAReaderTheWatchersEndWell)
{
    Keladm receive({"receive"});
    SendToReceiver();
    Start(kShippedDaemon);
    Keladm trace({"trace", "--history"}), events({"events"}); // more than a pipe holds
    SendReport(kUser, "first");
    ASSERT_TRUE(trace.WaitForOutput("first"));
    ASSERT_TRUE(receive.WaitForOutput("first"));
    ASSERT_TRUE(events.WaitForOutput("\n"));
    for (Keladm *each : {&trace, &receive, &events}) {
        each->CloseOutput(); // nothing need come any more
        EXPECT_EQ(0, each->WaitForExit());
        EXPECT_EQ("", each->Errors());
    }
    EXPECT_FALSE(SocketIsThere());
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

TEST_F(KeladmSystemTest, ADaemonThatGoesAwayIsSaid)
{
    Start(kShippedDaemon);
    Keladm late({"trace", "--timeout", "1ms", "--count", "2"});
    EXPECT_EQ(1, late.WaitForExit());
    EXPECT_EQ("keladm trace: 0 of 2 lines came\n", late.Errors());
    Keladm trace({"trace", "--history", "--count", "2"});
    Send(kUser, "kel.external.mark0", " ");
    ASSERT_TRUE(trace.WaitForOutput("kel.external.mark0"));
    daemon->Terminate(SIGKILL);

    const std::string scenario = host.Path("scenario.kel");
    std::ofstream(scenario) << "host set net/portgroups/Production vSwitch7\nobserve kel.x\n";
    for (const Texts &arguments :
         {Texts{"trace"}, Texts{"send", "--force", "kel.x"}, Texts{"send", "--force", "-c", "3", "kel.x"},
          Texts{"replay", "--live", scenario}}) {
        Keladm keladm(arguments); // the daemon's sockets are still there
        EXPECT_EQ(3, keladm.WaitForExit());
        EXPECT_THAT(keladm.Errors(), HasSubstr("no daemon serves " + host.Path()));
    }
    EXPECT_EQ(std::nullopt, host.HostText("net/portgroups/Production")) << "nothing is changed either";

    Start(kShippedDaemon); // whoever watches goes on
    Send(kUser, "kel.external.mark1", " ");
    EXPECT_EQ(0, trace.WaitForExit()) << trace.Errors();
    EXPECT_THAT(trace.Lines(), ElementsAre(EndsWith("kel.external.mark0"),
                                           AllOf(HasSubstr("---- lines are missing after "),
                                                 EndsWith("the daemon was restarted")),
                                           EndsWith("kel.external.mark1")));
    EXPECT_THAT(trace.Errors(),
                AllOf(HasSubstr(") has ended; waiting for the next\n"), HasSubstr("another daemon")));
}

TEST_F(KeladmSystemTest, WhatIsSentIsTakenOrRefused)
{
    Start(kShippedDaemon);
    std::vector<RawProducer> eight;
    for (int i = 0; i < 8; ++i)
        eight.emplace_back(kUser);
    EXPECT_EQ(0, eight.back().Send(Report("the eighth"))); // all are served by now
    ASSERT_TRUE(daemon->Log().WaitForLines("the eighth", 1));
    Keladm ninth({"send", "kel.external.error", "acme-raid", "https://kb.example/1042", "the ninth"});
    EXPECT_EQ(4, ninth.WaitForExit());
    EXPECT_THAT(ninth.Errors(), HasSubstr("serves eight programs at a time"));
    EXPECT_TRUE(daemon->Log().LinesWith("the ninth").empty());
}

// Whatever ends it: the entries that it made, changed and removed, and what the daemon wrote.
TEST_F(KeladmSystemTest, ALiveReplayPutsTheInventoryBackAsItWas)
{
    const auto present = [&] {
        Keladm list({"host", "list"});
        return list.WaitForExit() == 0 ? list.Output() : "";
    };
    host.Host("net/portgroups/Production", "vSwitch0");
    host.Host("net/portgroups/Management", "vSwitch0");
    host.Host("kernel/options/Net/LinkFlappingThreshold", "1");
    host.HostDirectory("kernel/nodes/net/pNics/vmnic0");
    host.HostDirectory("vms/12");
    const std::string before = present(), scenario = host.Path("scenario.kel");
    Start(kShippedDaemon);
    const std::string changes =
        "host set net/portgroups/Production vSwitch1\nhost remove net/portgroups/Management\n"
        "host set storage/paths/hba1:C0:T0:L4 naa.6\nhost remove vms\n"
        "repeat 2\nobserve kel.net.vmnic.linkstate.down vmnic0\nend\n"
        "expect within 60s nox.problem.net.vmnic.linkstate.flapping vmnic0\n";
    std::ofstream(scenario) << changes << "pause 10m\n";
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Keladm replay({"replay", "--live", scenario});
        ASSERT_TRUE(replay.WaitForOutput("pause 10m")) << replay.Output() << replay.Errors();
        EXPECT_EQ("1", host.HostText("kernel/nodes/net/pNics/vmnic0/linkFlapping"));
        host.Host("storage/paths/hba1:C0:T0:L5", "somebody else's");
        replay.Signal(signal);
        EXPECT_EQ(1, replay.WaitForExit());
        EXPECT_THAT(replay.Errors(),
                    AllOf(HasSubstr("plays to the live host in " + host.Path()),
                          HasSubstr(": 2 observations; 4 changes"), EndsWith("interrupted\n")));
        EXPECT_EQ("somebody else's", host.HostText("storage/paths/hba1:C0:T0:L5"));
        host.RemoveHost("storage");
        EXPECT_EQ(before, present());
    }
    std::ofstream(scenario) << changes << "host remove vms/99\n";
    EXPECT_EQ(1, Run({"replay", "--live", scenario}));
    EXPECT_EQ(before, present());
}

// The file takes some lines and a part of one.
TEST_F(KeladmSystemTest, AFullDiskUnderTheFileLosesNoEventOnTheTerminal)
{
    const std::string file = host.Path("events.jsonl");
    Keladm receive({"receive", "--output", file}, {.fileBytesMax = 2000});
    SendToReceiver();
    Start(kShippedDaemon);
    for (int i = 0; i < 20; ++i)
        SendReport(4, "report " + std::to_string(i) + " of 20");
    EXPECT_TRUE(receive.WaitForOutput("report 19 of 20")) << receive.Output();
    receive.Signal(SIGTERM);
    EXPECT_EQ(1, receive.WaitForExit());
    EXPECT_EQ(20U, receive.Lines().size());
    EXPECT_EQ("keladm receive: " + file +
                  ": File too large; nothing more is kept there, events are still shown\n",
              receive.Errors());
    const Texts kept = LinesOf(std::ifstream(file));
    EXPECT_THAT(kept, Not(testing::IsEmpty()));
    for (const std::string &line : kept)
        EXPECT_TRUE(json::accept(line)) << line;
}

// Whatever ends it: no folder, no daemon.
TEST_F(KeladmSystemTest, AReplayThatIsInterruptedLeavesNothingBehind)
{
    const std::string folder = host.Path("t"), scenario = host.Path("scenario.kel");
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    setenv("TMPDIR", folder.c_str(), 1);
    std::ofstream(scenario) << "pause 10m\n";
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        Keladm check({"replay", "-"}, {.input = scenario});
        ASSERT_TRUE(check.WaitForOutput("pause 10m")) << check.Output() << check.Errors();
        EXPECT_FALSE(std::filesystem::is_empty(folder));
        check.Signal(signal);
        EXPECT_EQ(1, check.WaitForExit());
        EXPECT_EQ("keladm replay: interrupted\n", check.Errors());
        EXPECT_TRUE(std::filesystem::is_empty(folder));
    }
}

} // namespace
