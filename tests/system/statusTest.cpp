// keld-status and keladm status beside the daemon as it runs, and as it has ended.

#include "systemTest.h"
#include "unixSocket.h"

#include <array>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

using nlohmann::json;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class StatusTest : public SystemTest {
protected:
    // Runs keladm status with those options: "EXIT-STATUS OUTPUT".
    std::string Status(const std::string &options = "")
    {
        FILE *pipe = popen((KELADM_BINARY " status " + options).c_str(), "re");
        std::string text;
        for (int c; (c = std::fgetc(pipe)) != EOF;)
            text += static_cast<char>(c);
        return std::to_string(WEXITSTATUS(pclose(pipe))) + " " + text;
    }
    json Counts() { return json::parse(Status("--json").substr(2)); }

    // What an agent stands in.
    std::string Stands(const std::string &agent)
    {
        const json counts = Counts();
        for (const json &each : counts["agents"])
            if (each["name"] == agent) return each["stands"];
        return "";
    }
};

TEST_F(StatusTest, CountsWhatTheDaemonDoesAndWhatItEndedIn)
{
    EXPECT_THAT(Status(), StartsWith("3 not running: no daemon has served"));
    Start(kShippedDaemon);
    EXPECT_TRUE(WaitUntil([this] { return Status().starts_with("0 well: nothing stands still"); }))
        << Status();
    SendReport(3, "battery low");
    Send(3, "kel.nobody.wants.this", "%d", 1);
    receiver.WaitFor(1);
    EXPECT_TRUE(WaitUntil([this] { return Counts()["events"] == json({{"delivered", 1}}); }));
    const json counts = Counts();
    EXPECT_EQ(2, counts["observations"]);
    EXPECT_EQ(2, counts["channels"][3]["observations"]);
    EXPECT_EQ(json({{"used", 1}, {"of", 1000}}), counts["event_limit"]);

    receiver.Stop();
    SendReport(3, "battery empty");
    EXPECT_TRUE(WaitUntil([this] { return Counts()["events_waiting"] == 1; }));
    EXPECT_EQ(128 + SIGKILL, daemon->Terminate(SIGKILL));
    EXPECT_THAT(Status(), AllOf(StartsWith("3 not running: process "), HasSubstr("was killed"),
                                HasSubstr("posted 2")));
}

TEST_F(StatusTest, AnswersWhileEverythingIsStuck)
{
    Start(kShippedDaemon);
    receiver.Stop();
    receiver.Start(0);
    for (int i = 0; i < 5; ++i)
        SendReport(9, "battery low");
    EXPECT_TRUE(
        WaitUntil([this] { return Stands("GenericCorrelator") == "posting, waits for the receiver"; }));
    daemon->Signal(SIGSTOP);
    EXPECT_TRUE(WaitUntil([this] { return Status().starts_with("2 stuck: process "); })) << Status();
    EXPECT_EQ(0, std::system("! command -v promtool || " KELADM_BINARY
                             " status --prometheus | promtool check metrics"));
    daemon->Signal(SIGCONT);
}

TEST_F(StatusTest, ADaemonThatCannotMakeItDoesWithoutAndAnotherLeavesItAlone)
{
    std::filesystem::create_directories(host.Path("keld-status/taken"));
    Start(kShippedDaemon);
    EXPECT_THAT(Status(), HasSubstr("serves, but how it is cannot be told"));
    EXPECT_FALSE(std::filesystem::exists(host.Path("keld-status.new")));
    std::filesystem::remove_all(host.Path("keld-status"));
    Start(kShippedDaemon);
    struct stat first {
    }, second{};
    EXPECT_EQ(0, stat(host.Path("keld-status").c_str(), &first));
    EXPECT_EQ(16, Daemon(kShippedDaemon).WaitForExit());
    EXPECT_EQ(0, stat(host.Path("keld-status").c_str(), &second));
    EXPECT_EQ(first.st_ino, second.st_ino);
    EXPECT_EQ(12288, second.st_size);
}

} // namespace
