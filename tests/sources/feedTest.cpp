// Into the daemon from anywhere, and out of it where no management agent is.
#include "catalogue.h"
#include "kelproducer.h"
#include "outbox.h"
#include "sourcesTest.h"
#include "unixSocket.h"
#include "waitFor.h"

#include <atomic>

#include <kltlibs/msgfmt.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;

namespace {

std::string Types(const char *format)
{
    std::string types;
    const char *start = nullptr;
    MsgFmtType type{};
    while (MsgFmt_NextConversion(&format, &start, &type) == 0)
        types += std::to_string(type) + " ";
    return types;
}

std::string Types(const CatalogueObservation &observation)
{
    const std::map<std::string, MsgFmtType> codes{{"string", MSGFMT_TYPE_STRING},
                                                  {"int32", MSGFMT_TYPE_INT32},
                                                  {"uint32", MSGFMT_TYPE_UINT32},
                                                  {"int64", MSGFMT_TYPE_INT64},
                                                  {"uint64", MSGFMT_TYPE_UINT64}};
    std::string types;
    for (const CatalogueArgument &argument : observation.arguments)
        types += std::to_string(codes.at(argument.type)) + " ";
    return types;
}

TEST(RowTest, EveryRowOfEverySourceIsTheCataloguesWithItsArguments)
{
    const auto catalogue = FindCatalogue(KELD_CATALOGUE_FILE);
    std::size_t rows = 0;
    for (const SourceKind *kind : SourceKinds())
        for (const Row &row : kind->rows) {
            const auto known =
                std::ranges::find(catalogue->observations, row.id, &CatalogueObservation::id);
            ASSERT_NE(known, catalogue->observations.end()) << row.id;
            EXPECT_EQ(Types(*known), Types(row.format)) << row.id;
            EXPECT_FALSE(known->becomes.empty() && known->note.empty()) << row.id << " leads nowhere";
            ++rows;
        }
    EXPECT_LT(40U, rows);
}

TEST(RowTest, WhatCameFromOutsideIsCutAndPrintable)
{
    EXPECT_EQ("\\x1b[31mDIMM\\n", Clean("\x1b[31mDIMM\n"));
    EXPECT_EQ(kTextBytesMax, Clean(std::string(5000, 'x')).size());
    EXPECT_GE(kTextBytesMax, Clean(std::string(5000, '\n')).size());
}

// More than waits for a daemon that is away: the oldest go, and their number is told first.
TEST_F(SourcesTest, ADaemonThatWasAwayIsToldOfTheGap)
{
    const Row ignored{"kel.quillfs.tardisk.readonlyfile", "%s", ""};
    EventLoop loop(std::chrono::seconds(10));
    Outbox outbox(loop);
    constexpr int kMany = 9000;
    for (int i = 0; i < kMany; ++i)
        outbox.Add(ignored, {std::to_string(i) + std::string(200, 'x')});
    StartDaemon();
    outbox.Add(ignored, {std::string("last")});
    std::atomic<bool> isOver = false;
    std::thread sender([&] {
        while (!isOver)
            sd_event_run(loop.Get(), 10'000);
    });
    const std::string gap = Next();
    EXPECT_THAT(gap, HasSubstr(" observations were lost while the daemon was away"));
    EXPECT_THAT(Next(),
                HasSubstr("readonlyfile,,\"" +
                          std::to_string(std::atoi(gap.c_str() + gap.rfind('"', gap.size() - 2) + 1)) +
                          "x"));
    std::string line;
    while (line.find("\"last\"") == std::string::npos && line != "(nothing)")
        line = Next();
    EXPECT_THAT(line, HasSubstr("\"last\""));
    isOver = true;
    sender.join();
}

class FeedTest : public SourcesTest {
protected:
    // Both outputs of keladm, and its exit status at the end.
    std::string Keladm(const std::string &arguments, const std::string &input)
    {
        std::ofstream(host.Path("input")) << input;
        const std::string command = "KELD_CATALOGUE=" KELD_CATALOGUE_FILE " " KELADM_BINARY " " +
                                    arguments + " <" + host.Path("input") + " >" + host.Path("output") +
                                    " 2>&1; echo $? >>" + host.Path("output");
        EXPECT_EQ(0, std::system(command.c_str()));
        std::ostringstream text;
        text << std::ifstream(host.Path("output")).rdbuf();
        return text.str();
    }
};

TEST_F(FeedTest, WhatTheCatalogueDoesNotAllowIsRefusedWithItsLineAndTheRestIsSent)
{
    EXPECT_THAT(Keladm("feed", "{}"), HasSubstr("\n3\n")); // no daemon
    StartDaemon();
    EXPECT_EQ("keladm feed: line 2: \"kel.nope\" is not in the catalogue\n"
              "keladm feed: line 4: no JSON object with an \"id\"\n"
              "keladm feed: line 5: argument depth (uint32) is missing\n"
              "keladm feed: line 6: argument device is number, not a text\n"
              "keladm feed: line 7: 2 arguments; kel.net.vmnic.linkstate.down has 1\n"
              "keladm feed: line 8: \"time\" is neither id nor arguments\n"
              "keladm feed: line 9: \"no\" is no UUID\n2\n",
              Keladm("feed", R"({"id": "kel.net.vmnic.linkstate.down", "arguments": ["42"]}
{"id": "kel.nope"}

[1]
{"id": "kel.scsi.device.queue.full", "arguments": ["naa.1"]}
{"id": "kel.scsi.device.queue.full", "arguments": [1, 2]}
{"id": "kel.net.vmnic.linkstate.down", "arguments": ["a", "b"]}
{"id": "kel.net.vmnic.linkstate.down", "arguments": ["a"], "time": 1}
{"id": "kel.dsfs.heartbeat.timedout", "arguments": ["no", "ds"]}
{"id": "kel.dsfs.heartbeat.timedout", "arguments": {"volumeLabel": "ds-gold", "volumeUuid": "4c4c4544-00423510-8053-b7c04f533232"}}
{"id": "kel.clock.correction.adjtime.sync"}
)"));
    EXPECT_EQ("kel.net.vmnic.linkstate.down,,\"42\"", Next());
    EXPECT_THAT(Next(),
                AllOf(HasSubstr("heartbeat.timedout,,1280066884,4338960,"), HasSubstr("\"ds-gold\"")));
    EXPECT_EQ("kel.clock.correction.adjtime.sync,", Next());
}

// A journal's socket of the test's own, and a program that is slow at its second event.
TEST_F(FeedTest, EventsGoToTheJournalAndToAProgramWhereNoAgentIs)
{
    const UniqueFd journal(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{AF_UNIX, {}};
    host.Path("journal").copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(0, bind(journal.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
    const std::string script = host.Path("program");
    std::ofstream(script) << "#!/bin/sh\n[ -e " + script + ".first ] && sleep 1000\ncat >" + script +
                                 ".first\n";
    std::filesystem::permissions(script, std::filesystem::perms::owner_all);
    StartDaemon();
    std::string told;
    std::thread receiver([&] {
        told = Keladm("receive --count 2 --timeout 60s --exec-limit 1s --journald " + host.Path("journal") +
                          " --exec " + script,
                      "");
    });
    ASSERT_TRUE(WaitUntil([&] { return IsListening(host.Path("carad-pling.sock")); }));
    KelProducer *producer = nullptr;
    ASSERT_EQ(0, KelProducer_Open(KELPRODUCER_USER_CONTEXT, &producer));
    for (const char *device : {"naa.1", "naa.2"})
        EXPECT_EQ(0, KelProducer_Emit(producer, "kel.scsi.device.queue.full", "%s %u", device, 4U));
    KelProducer_Close(producer);
    receiver.join();

    std::string entry(100000, '\0');
    entry.resize(static_cast<std::size_t>(
        std::max<ssize_t>(0, recv(journal.Get(), entry.data(), entry.size(), MSG_DONTWAIT))));
    const auto field = [](const std::string &name, const std::string &value) {
        return HasSubstr(name + '\n' + static_cast<char>(value.size()) + std::string(7, '\0') + value +
                         '\n');
    };
    EXPECT_THAT(
        entry,
        AllOf(field("KELD_TYPE", "nox.problem.scsi.device.queue.full"), field("PRIORITY", "4"),
              field("KELD_CLASS", "problem"), field("KELD_OBJECT", "naa.1"),
              field("KELD_ARG_DEVICE", "naa.1"), field("KELD_ARG_DEPTH", "4"),
              field("MESSAGE",
                    "Device naa.1 keeps reporting a full queue. Its queue depth has been lowered to 4.")));
    std::ostringstream input;
    input << std::ifstream(script + ".first").rdbuf();
    EXPECT_THAT(input.str(), HasSubstr(R"("arguments":["naa.1",4])"));
    EXPECT_THAT(told,
                AllOf(HasSubstr(script + ": took too long, and was killed\n"), testing::EndsWith("\n0\n")));
    EXPECT_THAT(Keladm("receive --journald " + host.Path("nowhere"), ""), HasSubstr("no journal at"));
}

} // namespace
