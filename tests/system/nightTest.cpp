// What a night brings: a log daemon that is stuck or goes, a service manager that wants to know, clients
// that read slowly.
#include "systemTest.h"
#include "unixSocket.h"
#include "waitFor.h"

#include <algorithm>
#include <filesystem>
#include <gmock/gmock.h>
#include <kltlibs/uniquefd.h>
#include <poll.h>
#include <statusFile.h>
#include <sys/socket.h>

namespace {

using testing::ContainsRegex;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

// Somebody who takes datagrams when told to.
class DatagramSocket {
public:
    explicit DatagramSocket(const std::string &path) : mFd(BindDatagramSocket(path)) {}
    // The next; empty when none comes within the limit.
    std::string Take(std::chrono::milliseconds limit = kWaitLimit) const
    {
        std::string text(100'000, '\0');
        if (WaitForEvents(mFd.Get(), POLLIN, limit) == 0) return "";
        text.resize(
            static_cast<std::size_t>(std::max<ssize_t>(0, read(mFd.Get(), text.data(), text.size()))));
        return text;
    }

private:
    UniqueFd mFd;
};

class NightTest : public SystemTest {
protected:
    std::size_t SendReports(int count)
    {
        for (int i = 0; i < count; ++i)
            SendReport(0, "stimulus");
        return receiver.WaitFor(static_cast<std::size_t>(count)).size();
    }

    bool SomeThreadStandsIn(KeldStanding standing) const
    {
        const KeldStatusFile file = ReadStatusFile(host.Path("keld-status")).content;
        return std::ranges::any_of(file.threads, [&](const KeldStatusThread &thread) {
            return StandingCode(thread) == static_cast<unsigned>(standing);
        });
    }

    const std::string logPath = host.Path("log");
};

TEST_F(NightTest, TheServiceManagerLearnsThatItIsReadyAndNothingOfAMistypedOption)
{
    const DatagramSocket manager(host.Path("notify"));
    const Texts environment{"NOTIFY_SOCKET=" + host.Path("notify")};
    daemon.emplace(kShippedDaemon, Texts{"--bogus"}, environment);
    EXPECT_EQ(0, daemon->WaitForExit());
    daemon.emplace(kShippedDaemon, Texts{}, environment);
    EXPECT_EQ("READY=1", manager.Take());
    EXPECT_TRUE(std::filesystem::exists(host.Path("keld-trace.sock")));
    EXPECT_EQ(0, daemon->Terminate());
    EXPECT_EQ("STOPPING=1", manager.Take());
    EXPECT_THAT(daemon->Told(),
                ContainsRegex("^version .* is ready: process [0-9]+, run directory " + host.Path() +
                              ", 18 agents\nended with status 0; 0 events were "
                              "waiting for a retry, 0 observations were left in pipes\n$"));
}

TEST_F(NightTest, WhoeverStartsItLearnsWhatFailedWhereAndWhatToDo)
{
    std::filesystem::create_directories(host.Path("kel/user.sock/not-empty"));
    daemon.emplace(kShippedDaemon);
    EXPECT_EQ(EISDIR, daemon->WaitForExit());
    EXPECT_THAT(daemon->Told(),
                HasSubstr("cannot start: " + host.Path() + "/kel/user.sock: Is a directory; "));
}

TEST_F(NightTest, ALogThatDoesNotReadHoldsNothingAndLearnsHowManyLinesItMissed)
{
    auto stuck = std::make_unique<DatagramSocket>(logPath);
    Start(kShippedDaemon, {}, {"KELD_LOG_SOCKET=" + logPath});
    EXPECT_EQ(60U, SendReports(60));
    // Room for one line is enough to be told; what the socket holds is from before.
    std::size_t taken = 0;
    for (std::string line; !(line = stuck->Take(std::chrono::milliseconds(200))).empty(); ++taken)
        EXPECT_THAT(line, StartsWith("<14>"));
    EXPECT_EQ(1U, SendReports(1));
    EXPECT_THAT(stuck->Take(),
                ContainsRegex("^<14>... .. ..:..:.. keld: [0-9]+ lines were not taken by the "
                              "system log.\n$"));
    stuck.reset(); // the log daemon is restarted
    stuck = std::make_unique<DatagramSocket>(logPath);
    EXPECT_EQ(1U, SendReports(1));
    EXPECT_THAT(stuck->Take(), HasSubstr("kel.external.error"));
    EXPECT_EQ(0, daemon->Terminate());
    EXPECT_THAT(daemon->Told(), ContainsRegex("[0-9]+ lines? .*not taken by the system log"));
}

TEST_F(NightTest, ALogThatIsOnlySlowIsWaitedFor)
{
    Start(kShippedDaemon, {}, {"KELD_LOG_SOCKET=" + logPath});
    const DatagramSocket slow(logPath);
    const UniqueFd other = ConnectTo(logPath, SOCK_DGRAM);
    while (send(other.Get(), "full", 4, MSG_DONTWAIT) > 0) {
    }
    SendReport(0, "stimulus");
    if (!WaitUntil([&] { return SomeThreadStandsIn(KeldStanding::Log); }, std::chrono::seconds(1)))
        GTEST_SKIP() << "its patience was over before it could be seen";
    EXPECT_TRUE(WaitUntil([&] { return slow.Take().find("kel.external.error") != std::string::npos; }));
    EXPECT_EQ(1U, receiver.WaitFor(1).size());
}

TEST_F(NightTest, ALogThatIsAStreamGetsLinesThatEndWithNul)
{
    const UniqueFd listening = ListenAt(logPath, 8);
    Start(kShippedDaemon, {}, {"KELD_LOG_SOCKET=" + logPath});
    ASSERT_EQ(POLLIN, WaitForEvents(listening.Get(), POLLIN));
    const UniqueFd log(accept4(listening.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_EQ(1U, SendReports(1));
    std::string text;
    EXPECT_TRUE(WaitUntil([&] {
        char piece[4096];
        const ssize_t got = recv(log.Get(), piece, sizeof piece, MSG_DONTWAIT);
        text.append(piece, static_cast<std::size_t>(std::max<ssize_t>(0, got)));
        return text.find("nox.problem.3rdParty.error") != text.npos && text.ends_with('\0');
    })) << text;
    EXPECT_THAT(text, StartsWith("<14>"));
    EXPECT_THAT(text, HasSubstr(std::string("\n\0<14>", 6)));
}

TEST_F(NightTest, ATraceClientThatEndedItsSideGetsEverythingHoweverSlowly)
{
    Start(kShippedDaemon);
    const UniqueFd slow = ConnectTo(host.Path("keld-trace.sock"));
    constexpr std::size_t kCount = 900;
    EXPECT_EQ(kCount, SendReports(kCount));
    ASSERT_EQ(0, shutdown(slow.Get(), SHUT_WR));
    std::string text;
    char piece[512];
    for (ssize_t got; (got = recv(slow.Get(), piece, sizeof piece, 0)) > 0;)
        text.append(piece, static_cast<std::size_t>(got));
    std::size_t lines = 0;
    for (std::size_t at = 0; (at = text.find("kel.external.error", at)) != text.npos; ++at)
        ++lines;
    EXPECT_EQ(kCount, lines);
}

} // namespace
