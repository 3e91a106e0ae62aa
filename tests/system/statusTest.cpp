// keld-status and keladm status beside the daemon as it runs, and as it has ended.

#include "systemTest.h"

#include <cstdlib>
#include <filesystem>
#include <gmock/gmock.h>

using testing::HasSubstr;
using testing::StartsWith;

namespace {

class StatusTest : public SystemTest {
protected:
    // Runs keladm status: its exit status, a blank, and what it writes.
    std::string Status(const std::string &option = "")
    {
        FILE *pipe = popen((KELADM_BINARY " status " + option).c_str(), "re");
        std::string text;
        for (int c; (c = std::fgetc(pipe)) != EOF;)
            text += static_cast<char>(c);
        return std::to_string(WEXITSTATUS(pclose(pipe))) + " " + text;
    }
    bool WaitForStatus(const std::string &option, const std::string &part)
    {
        return WaitUntil([&] { return Status(option).find(part) != std::string::npos; });
    }
};

TEST_F(StatusTest, CountsWhatTheDaemonDoesUntilItIsKilled)
{
    EXPECT_THAT(Status(), StartsWith("3 not running: no daemon has served"));
    Start(kShippedDaemon);
    EXPECT_TRUE(WaitForStatus("", "0 well: nothing stands still"));
    SendReport(3, "battery low");
    Send(3, "kel.nobody.wants.this", "%d", 1);
    EXPECT_EQ(0, RawProducer(3).Send(RecordBytes(40))); // no valid record
    EXPECT_TRUE(WaitForStatus("--prometheus", "channel_dropped_total{channel=\"async-3\"} 1\n"));
    EXPECT_TRUE(WaitForStatus("--prometheus", "keld_events_total{delivery=\"delivered\"} 1\n"));
    EXPECT_THAT(Status("--json"), HasSubstr(R"({"name":"async-3","observations":2,)"));
    EXPECT_THAT(Status("--json"), HasSubstr(R"("event_limit":{"used":1,"of":1000})"));

    receiver.Stop();
    SendReport(3, "battery empty");
    EXPECT_TRUE(WaitForStatus("", "1 degraded: 1 event waits"));
    EXPECT_EQ(128 + SIGKILL, daemon->Terminate(SIGKILL));
    EXPECT_THAT(Status(), AllOf(StartsWith("3 not running: process "), HasSubstr("posted 2")));
}

TEST_F(StatusTest, AnswersWhileEverythingIsStuck)
{
    Start(kShippedDaemon);
    receiver.Stop();
    receiver.Start(0);
    for (int i = 0; i < 5; ++i)
        SendReport(9, "battery low");
    EXPECT_TRUE(WaitForStatus("", "posting, waits for the receiver for"));
    daemon->Signal(SIGSTOP);
    EXPECT_TRUE(WaitForStatus("", "2 stuck: process "));
    EXPECT_EQ(0, std::system("! command -v promtool >/dev/null || " KELADM_BINARY
                             " status --prometheus | promtool check metrics"));
    daemon->Signal(SIGCONT);
}

TEST_F(StatusTest, ADaemonThatCannotHaveItsFileDoesWithout)
{
    std::filesystem::create_directories(host.Path("keld-status/taken"));
    Start(kShippedDaemon);
    EXPECT_THAT(Status(), HasSubstr("serves, but how it is cannot be told"));
    EXPECT_FALSE(std::filesystem::exists(host.Path("keld-status.new")));
}

} // namespace
