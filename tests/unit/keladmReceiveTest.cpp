// The event socket's receiving side, and event records in words.

#include "eventWords.h"
#include "failure.h"
#include "jsonLine.h"
#include "runDir.h"

#include "kltlibs/msgfmt.h"

#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

// A whole event record with one text argument.
std::string EventBytes(const std::string &type, const std::string &text)
{
    auto put = [](std::string *bytes, size_t at, std::uint64_t value, size_t size) {
        std::memcpy(bytes->data() + at, &value, size);
    };
    std::string bytes(68, '\0');
    put(&bytes, 0, 1714557600123456, 8);
    put(&bytes, 60, 1, 4);
    put(&bytes, 64, type.size() + 1, 4);
    bytes += type + '\0';
    size_t area = bytes.size();
    bytes += std::string(16, '\0') + text + '\0' + std::string(4, '\0');
    put(&bytes, area, MSGFMT_TYPE_STRING, 4);
    put(&bytes, area + 4, text.size() + 1, 4);
    put(&bytes, area + 8, 16, 8);
    put(&bytes, 56, bytes.size(), 4);
    return bytes;
}

const std::string kDown = "nox.problem.net.vmnic.linkstate.down";

class KeladmReceiveTest : public testing::Test {
protected:
    static Clock::time_point Soon() { return Clock::now() + std::chrono::seconds(60); }

    UniqueFd Connect()
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, mRun.Path("carad-pling.sock").c_str());
        UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(0, connect(fd.Get(), reinterpret_cast<sockaddr *>(&address), sizeof address));
        return fd;
    }

    static void Write(const UniqueFd &fd, std::string_view bytes)
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()),
                  send(fd.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    void Send(const std::string &bytes) { Write(Connect(), bytes); }

    static std::string Text(const ReceivedRecord &record)
    {
        return record.event ? record.event->arguments.at(0).ToText() : "malformed: " + record.malformed;
    }

    // The first text argument of the next count records.
    static std::vector<std::string> Next(EventListener &listener, size_t count)
    {
        std::vector<std::string> texts;
        for (auto until = Soon(); texts.size() < count && Clock::now() < until;)
            for (const ReceivedRecord &record : listener.Wait(until, {}))
                texts.push_back(Text(record));
        return texts;
    }

    RunDir mRun;
};

TEST_F(KeladmReceiveTest, OneRecordComesFromEachConnection)
{
    EventListener listener;
    Send(EventBytes(kDown, "vmnic0"));
    Send(EventBytes(kDown, "vmnic1"));
    EXPECT_THAT(Next(listener, 2), ElementsAre("vmnic0", "vmnic1"));
}

TEST_F(KeladmReceiveTest, ARecordMayComeInPieces)
{
    EventListener listener;
    std::string bytes = EventBytes(kDown, "vmnic0");
    {
        UniqueFd slow = Connect();
        Write(slow, bytes.substr(0, 10));
        EXPECT_TRUE(listener.Wait(Clock::now(), {}).empty());
        Write(slow, bytes.substr(10));
        EXPECT_TRUE(listener.Wait(Clock::now(), {}).empty());
    }
    EXPECT_THAT(Next(listener, 1), ElementsAre("vmnic0"));
}

TEST_F(KeladmReceiveTest, AConnectionThatSaysNothingHoldsNobodyUp)
{
    EventListener listener;
    UniqueFd silent = Connect();
    Send(EventBytes(kDown, "vmnic1"));
    EXPECT_THAT(Next(listener, 1), ElementsAre("vmnic1"));
}

TEST_F(KeladmReceiveTest, ASilentConnectionEndsAndWhatItBroughtIsLookedAt)
{
    EventListener listener({.idle = std::chrono::milliseconds(1)});
    UniqueFd whole = Connect(), part = Connect(), nothing = Connect();
    Write(whole, EventBytes(kDown, "vmnic0"));
    Write(part, EventBytes(kDown, "vmnic1").substr(0, 20));
    EXPECT_THAT(Next(listener, 2),
                testing::UnorderedElementsAre("vmnic0", HasSubstr("stayed open and silent")));
    char byte = 0;
    EXPECT_EQ(0, read(nothing.Get(), &byte, 1));
}

TEST_F(KeladmReceiveTest, SilentConnectionsGiveWayWhenThereIsNoRoomForOthers)
{
    EventListener listener({.connectionsMax = 2, .idleWhenFull = std::chrono::milliseconds(1)});
    UniqueFd first = Connect(), second = Connect();
    Send(EventBytes(kDown, "vmnic0"));
    EXPECT_THAT(Next(listener, 1), ElementsAre("vmnic0"));
}

TEST_F(KeladmReceiveTest, MalformedRecordsAreReportedAndEndNothing)
{
    EventListener listener({.bytesMax = 1000});
    Send("garbage");
    Send(EventBytes(kDown, "vmnic0") + "more");
    Send(std::string(1001, 'x'));
    Send(EventBytes(kDown, "vmnic1"));
    EXPECT_THAT(Next(listener, 4),
                ElementsAre(HasSubstr("malformed: byte 7"), HasSubstr("malformed: byte 56"),
                            HasSubstr("malformed: more than 1000 bytes"), "vmnic1"));
}

TEST_F(KeladmReceiveTest, AConnectionThatBringsNothingIsNoRecord)
{
    EventListener listener;
    Connect();
    Send(EventBytes(kDown, "vmnic0"));
    EXPECT_THAT(Next(listener, 1), ElementsAre("vmnic0"));
}

TEST_F(KeladmReceiveTest, ASecondReceiverIsRefusedAndTheFirstGoesOn)
{
    EventListener first;
    EXPECT_THROW(EventListener(), Failure);
    Send(EventBytes(kDown, "vmnic0"));
    EXPECT_THAT(Next(first, 1), ElementsAre("vmnic0"));
}

TEST_F(KeladmReceiveTest, ASocketLeftBehindIsReplacedAndAForeignFileIsNot)
{
    const std::string path = mRun.Path("carad-pling.sock");
    {
        EventListener ended;
        ASSERT_EQ(0, link(path.c_str(), mRun.Path("kept").c_str()));
    }
    EXPECT_NE(0, access(path.c_str(), F_OK));
    ASSERT_EQ(0, rename(mRun.Path("kept").c_str(), path.c_str()));
    {
        EventListener listener;
        Send(EventBytes(kDown, "vmnic0"));
        EXPECT_THAT(Next(listener, 1), ElementsAre("vmnic0"));
    }
    UniqueFd file(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    EXPECT_THROW(EventListener(), Failure);
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

TEST_F(KeladmReceiveTest, AReceiverRemovesOnlyItsOwnSocket)
{
    const std::string path = mRun.Path("carad-pling.sock");
    {
        EventListener listener;
        ASSERT_EQ(0, unlink(path.c_str()));
        UniqueFd file(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    }
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

class KeladmRecordTextTest : public testing::Test {
protected:
    static ReceivedRecord Record(const std::string &text)
    {
        EventRecord event;
        event.typeId = kDown;
        event.timestamp = 1714557600123456;
        event.arguments = {{MSGFMT_TYPE_STRING, text},
                           {MSGFMT_TYPE_STRING, std::optional<std::string>()},
                           {MSGFMT_TYPE_UINT64, std::uint64_t(18446744073709551615u)}};
        return {"", event, ""};
    }

    std::optional<Catalogue> mCatalogue = ParseCatalogue(R"({"version": 1, "observations": [], "events": [
        {"type": "nox.problem.net.vmnic.linkstate.down", "class": "problem", "text": "NIC %s is down, %s, %lu.",
         "arguments": [{"name": "nic", "type": "string"}], "clearedBy": ["nox.clear.x"]}]})");
};

TEST_F(KeladmRecordTextTest, TheTextComesFromTheCatalogueElseTheArgumentsAreShown)
{
    EXPECT_THAT(
        RecordLine(Record("vmnic0"), mCatalogue, false),
        testing::EndsWith("problem nox.problem.net.vmnic.linkstate.down  NIC vmnic0 is down, (null), "
                          "18446744073709551615."));
    EXPECT_THAT(RecordLine(Record("vmnic0"), std::nullopt, false),
                testing::EndsWith("linkstate.down  \"vmnic0\", (null), 18446744073709551615"));
}

TEST_F(KeladmRecordTextTest, AnEventIsOneLineWhateverItsTextsHold)
{
    std::string line = RecordLine(Record("a\n\x1b[31m\xc2\x9b"), mCatalogue, false);
    EXPECT_THAT(line, HasSubstr("NIC a\\n\\x1b[31m\\xc2"));
    EXPECT_EQ(std::string::npos, line.find_first_of("\n\x1b"));
}

TEST_F(KeladmRecordTextTest, JsonKeepsTheValues)
{
    auto json = RecordJson(Record("vmnic0"), std::nullopt);
    EXPECT_EQ(R"({"time":"2024-05-01T10:00:00.123456Z","timestamp":1714557600123456,"class":"problem",)"
              R"("type":"nox.problem.net.vmnic.linkstate.down","text":null,)"
              R"("arguments":["vmnic0",null,18446744073709551615],"host":""})",
              JsonLine(json));
    EXPECT_THAT(JsonLine(RecordJson(Record("\xff"), std::nullopt)), HasSubstr("\xEF\xBF\xBD"));
    EXPECT_EQ(R"({"malformed":"why","length":2,"hex":"0a0b"})",
              JsonLine(RecordJson({"\x0a\x0b", std::nullopt, "why"}, std::nullopt)));
}

TEST(KeladmCatalogueTest, AWrongEntryIsNamed)
{
    auto failureOf = [](const std::string &events) -> std::string {
        try {
            ParseCatalogue(R"({"version": 1, "observations": [], "events": [)" + events + "]}");
        } catch (const Failure &failure) {
            return failure.what();
        }
        return "no failure";
    };
    const std::string good = R"({"type": "nox.audit.x", "class": "audit", "text": "", "arguments": []})";
    EXPECT_EQ("no failure", failureOf(good));
    EXPECT_THAT(failureOf(good + R"(,{"type": "nox.audit.x"})"), HasSubstr("events[1]: "));
    EXPECT_THAT(failureOf(R"({"type": "nox.audit.x", "class": "clear", "text": "", "arguments": []})"),
                HasSubstr("not of the class \"clear\""));
    EXPECT_THAT(failureOf(R"({"type": "nox.audit.x", "class": "audit", "text": "",
                              "arguments": [{"name": "a", "type": "float"}]})"),
                HasSubstr("unknown type \"float\""));
    EXPECT_THROW(ParseCatalogue(R"({"version": 2, "observations": [], "events": []})"), Failure);
    EXPECT_THROW(ParseCatalogue("{"), Failure);
}

} // namespace
