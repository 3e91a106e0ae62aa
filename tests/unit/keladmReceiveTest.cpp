// The event socket's receiving side, and the catalogue that texts come from.

#include "eventWords.h"
#include "failure.h"
#include "jsonLine.h"
#include "keladmFailure.h"
#include "runDir.h"
#include "text.h"
#include "unixSocket.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::ElementsAre;
using testing::HasSubstr;
using namespace std::string_literals;

namespace {

const std::string kDown = "nox.problem.net.vmnic.linkstate.down";

// A whole event record of the type above, with one text of six characters.
std::string EventOf(const std::string &nic)
{
    return std::string(56, '\0') + "\x84\0\0\0\1\0\0\0\x25\0\0\0"s + kDown + '\0' +
           "\6\0\0\0\7\0\0\0\x10\0\0\0\0\0\0\0"s + nic + std::string(5, '\0');
}

class KeladmReceiveTest : public testing::Test {
protected:
    static void Write(const UniqueFd &fd, const std::string &bytes)
    {
        EXPECT_EQ(static_cast<ssize_t>(bytes.size()), send(fd.Get(), bytes.data(), bytes.size(), 0));
    }
    UniqueFd Connect(const std::string &bytes = "")
    {
        UniqueFd fd = ConnectTo(path);
        if (!bytes.empty()) Write(fd, bytes);
        return fd;
    }

    // The first text argument of each of the next count records.
    static std::vector<std::string> Next(EventListener &listener, size_t count)
    {
        std::vector<std::string> texts;
        const auto until = Clock::now() + std::chrono::seconds(60);
        while (texts.size() < count && Clock::now() < until)
            for (const ReceivedRecord &record : listener.Wait(until, {}))
                texts.push_back(record.event ? record.event->arguments.at(0).ToText()
                                             : "malformed: " + record.malformed);
        return texts;
    }

    RunDir run;
    const std::string path = run.Path("carad-pling.sock");
};

TEST_F(KeladmReceiveTest, OneRecordComesFromEachConnectionThatEnds)
{
    EventListener listener({.bytesMax = 1000});
    const UniqueFd silent = Connect(); // holds nobody up
    Connect();                         // brings nothing: no record
    {
        const UniqueFd slow = Connect(EventOf("vmnic0").substr(0, 10));
        EXPECT_TRUE(listener.Wait(Clock::now(), {}).empty());
        Write(slow, EventOf("vmnic0").substr(10));
        EXPECT_TRUE(listener.Wait(Clock::now(), {}).empty());
    }
    for (const std::string &bytes : {"garbage"s, EventOf("vmnic0") + "more", std::string(1001, 'x')})
        Connect(bytes);
    Connect(EventOf("vmnic1"));
    EXPECT_THAT(Next(listener, 5),
                ElementsAre("vmnic0", HasSubstr("malformed: byte 7"), HasSubstr("malformed: byte 56"),
                            HasSubstr("malformed: more than 1000 bytes"), "vmnic1"));
}

TEST_F(KeladmReceiveTest, ASilentConnectionEndsAndSoonerWhenThereIsNoRoomForOthers)
{
    {
        EventListener listener({.idle = std::chrono::milliseconds(1)});
        const UniqueFd whole = Connect(EventOf("vmnic0")), part = Connect(EventOf("vmnic1").substr(0, 20));
        const UniqueFd nothing = Connect();
        EXPECT_THAT(Next(listener, 2),
                    testing::UnorderedElementsAre("vmnic0", HasSubstr("stayed open and silent")));
        char byte = 0;
        EXPECT_EQ(0, read(nothing.Get(), &byte, 1));
    }
    EventListener full({.connectionsMax = 2, .idleWhenFull = std::chrono::milliseconds(1)});
    const UniqueFd first = Connect(), second = Connect();
    Connect(EventOf("vmnic2"));
    EXPECT_THAT(Next(full, 1), ElementsAre("vmnic2"));
}

TEST_F(KeladmReceiveTest, OnlyASocketThatNobodyServesIsReplacedAndOnlyItsOwnRemoved)
{
    {
        EventListener first;
        EXPECT_THAT(FailureOf([] { EventListener second; }), HasSubstr("listening there already"));
        Connect(EventOf("vmnic0"));
        EXPECT_THAT(Next(first, 1), ElementsAre("vmnic0"));
        ASSERT_EQ(0, link(path.c_str(), run.Path("kept").c_str()));
    }
    EXPECT_NE(0, access(path.c_str(), F_OK));
    ASSERT_EQ(0, rename(run.Path("kept").c_str(), path.c_str()));
    {
        EventListener listener;
        Connect(EventOf("vmnic1"));
        EXPECT_THAT(Next(listener, 1), ElementsAre("vmnic1"));
        ASSERT_EQ(0, unlink(path.c_str()));
        const UniqueFd foreign(open(path.c_str(), O_CREAT | O_WRONLY, 0600));
    }
    EXPECT_THROW(EventListener(), Failure);
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

TEST(KeladmTextTest, WhateverATextHoldsIsShownOnOneLine)
{
    EXPECT_EQ(R"(a\n\x1b[31m\x7f \u0085\u009b \x9b \u202e\u2069\u200f \xed\xa0\x80 \xc0\x80)",
              Printable("a\n\x1b[31m\x7F \xC2\x85\xC2\x9B \x9B \xE2\x80\xAE\xE2\x81\xA9\xE2\x80\x8F "
                        "\xED\xA0\x80 \xC0\x80"));
    EXPECT_EQ("\u00e4\u00a0\u20ac\U0001f512", Printable("\u00e4\u00a0\u20ac\U0001f512"));
    EXPECT_EQ(R"(["\n\u00e4\u202e",{"hex":"6eff"}])",
              JsonLine(nlohmann::ordered_json::array({JsonText("\n\u00e4\u202e"), JsonText("n\xFF")})));
}

TEST(KeladmCatalogueTest, AWrongEntryIsNamed)
{
    const std::string good = R"({"type": "nox.audit.x", "class": "audit", "text": "", "arguments": []})";
    ExpectRefusals({{good, "no failure"},
                    {good + R"(,{"type": "nox.audit.x"})", "events[1]: "},
                    {R"({"type": "nox.audit.x", "class": "clear", "text": "", "arguments": []})",
                     "not of the class \"clear\""}},
                   [](const std::string &events) {
                       ParseCatalogue(R"({"version": 1, "observations": [], "events": [)" + events + "]}");
                   });
    EXPECT_THROW(ParseCatalogue(R"({"version": 2, "observations": [], "events": []})"), Failure);
    EXPECT_THROW(ParseCatalogue("{"), Failure);
}

} // namespace
