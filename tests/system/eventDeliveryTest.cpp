// The road of an event to the receiver: its bytes, its order, and what happens while nobody listens.
#include "handClock.h"
#include "systemTest.h"

#include <cstring>

namespace {

constexpr std::uint64_t kRetrySeconds = 180;

class EventDeliveryTest : public SystemTest {
protected:
    void SetUp() override
    {
        host.Host("kernel/nodes/system/systemUuid", "4c4c4544-0051-3610-8052-b4c04f4e4d31");
        Start(kHandClockDaemon);
    }

    // What the log says about events that could not be sent at once.
    Texts DeliveryLines() const
    {
        Texts lines;
        for (std::string &line : daemon->Log().LinesWith("event ("))
            if (!line.starts_with("[")) lines.push_back(std::move(line));
        return lines;
    }
};

class Bytes {
public:
    Bytes &Word(std::uint64_t value, std::size_t size)
    {
        for (; size > 0; --size, value >>= 8)
            text.push_back(static_cast<char>(value & 0xFF));
        return *this;
    }
    Bytes &Text(std::string_view value, std::size_t size)
    {
        text += value;
        text.append(size - value.size(), '\0');
        return *this;
    }

    std::string text;
};

TEST_F(EventDeliveryTest, ObservationBecomesTheDocumentedBytes)
{
    SendReport(kUser, "low");

    Bytes expected;
    expected.Word(HandClock::kStart * 1000000, 8).Word(0, 8);
    expected.Text("4c4c4544-0051-3610-8052-b4c04f4e4d31", 38).Word(0, 2);
    expected.Word(68 + 27 + 4 * 16 + 10 + 24 + 10 + 4 + 4, 4).Word(4, 4).Word(27, 4);
    expected.Text("nox.problem.3rdParty.error", 27);
    expected.Word(6, 4).Word(10, 4).Word(64, 8);
    expected.Word(6, 4).Word(24, 4).Word(64 + 10, 8);
    expected.Word(6, 4).Word(10, 4).Word(64 + 10 + 24, 8);
    expected.Word(6, 4).Word(4, 4).Word(64 + 10 + 24 + 10, 8);
    expected.Text("acme-raid", 10).Text("https://kb.example/1042", 24).Text("acme-raid", 10).Text("low", 4);
    expected.Word(0, 4);

    const auto records = receiver.WaitForRaw(1);
    ASSERT_EQ(1U, records.size());
    EXPECT_EQ(testing::PrintToString(expected.text),
              testing::PrintToString(
                  std::string(reinterpret_cast<const char *>(records[0].data()), records[0].size())));
}

TEST_F(EventDeliveryTest, WhileTheReceiverIsAwayAnEventIsRetriedFiveTimesAndAbandoned)
{
    receiver.Stop();
    SendReport(4, "low");
    Settle();
    Texts expected{"An event (nox.problem.3rdParty.error) could not be sent immediately to carad; queueing "
                   "for retry."};
    EXPECT_EQ(expected, DeliveryLines());

    daemon->Advance(kRetrySeconds - 1);
    EXPECT_EQ(expected, DeliveryLines());
    daemon->Advance(1);
    for (const char *failures : {"2", "3", "4", "5"}) {
        expected.push_back(std::string("Failed to send event (nox.problem.3rdParty.error); ") + failures +
                           " failures so far.");
        EXPECT_EQ(expected, DeliveryLines());
        daemon->Advance(kRetrySeconds);
    }
    expected.push_back("Abandoned event (nox.problem.3rdParty.error) after 6 failures.");
    EXPECT_EQ(expected, DeliveryLines());

    receiver.Start();
    daemon->Advance(10 * kRetrySeconds);
    EXPECT_EQ(Texts{}, receiver.DrainTexts());
    EXPECT_EQ(expected, DeliveryLines());
}

TEST_F(EventDeliveryTest, WhatWaitedArrivesOnceAndInOrderWhenTheReceiverIsBack)
{
    receiver.Stop();
    const Texts messages{"one", "two", "three"};
    for (const std::string &message : messages)
        SendReport(4, message);
    Settle();
    receiver.Start();
    daemon->Advance(kRetrySeconds);
    EXPECT_EQ(Reported(messages), receiver.DrainTexts());
    EXPECT_EQ(3U, daemon->Log()
                      .LinesWith("Successfully sent event (nox.problem.3rdParty.error) after 1 failure.")
                      .size());
    daemon->Advance(10 * kRetrySeconds);
    EXPECT_EQ(Texts{}, receiver.DrainTexts());
}

TEST_F(EventDeliveryTest, SuccessAfterFailedRetriesCountsThem)
{
    receiver.Stop();
    SendReport(4, "low");
    Settle();
    daemon->Advance(2 * kRetrySeconds);
    receiver.Start();
    daemon->Advance(kRetrySeconds);
    EXPECT_EQ(Reported(Texts{"low"}), receiver.DrainTexts());
    EXPECT_EQ("Successfully sent event (nox.problem.3rdParty.error) after 3 failures.",
              DeliveryLines().back());
}

TEST_F(EventDeliveryTest, AnEventQueuedLaterSharesTheAlarmThatIsArmed)
{
    receiver.Stop();
    SendReport(4, "one");
    Settle();
    daemon->Advance(kRetrySeconds - 10);
    SendReport(4, "two");
    Settle();
    receiver.Start();
    daemon->Advance(10);
    EXPECT_EQ(Reported(Texts{"one", "two"}), receiver.DrainTexts());
}

TEST_F(EventDeliveryTest, StoppedAndContinuedItGoesOnWaitingForABusyReceiver)
{
    receiver.Stop();
    receiver.Start(0);
    const Texts messages{"one", "two", "three"};
    for (const std::string &message : messages)
        SendReport(4, message);
    EXPECT_TRUE(daemon->Log().WaitForLines("[nox.problem.3rdParty.error]", 2)); // the second finds no room
    for (int round = 0; round < 20; ++round)
        daemon->StopAndContinue();
    EXPECT_EQ(Reported(messages), receiver.WaitForTexts(messages.size()));
    EXPECT_EQ(Texts{}, DeliveryLines());
}

TEST_F(EventDeliveryTest, AThousandEventsPassInAMinute)
{
    const auto send = [](int count) {
        RawProducer producer(4);
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(0, producer.Send(Report("low")));
    };
    const std::string dropped = "Event rate limit reached. Dropping pling: nox.problem.3rdParty.error";
    send(1000);
    EXPECT_EQ(1000U, receiver.WaitFor(1000).size());
    EXPECT_EQ(Texts{}, daemon->Log().LinesWith("rate limit"));

    send(1);
    EXPECT_TRUE(daemon->Log().WaitForLine(dropped));
    daemon->Advance(59);
    send(1);
    EXPECT_TRUE(daemon->Log().WaitForLines(dropped, 2));

    daemon->Advance(1);
    send(1000);
    EXPECT_EQ(1000U, receiver.WaitFor(1000).size());
    EXPECT_EQ((Texts{dropped, dropped}), daemon->Log().LinesWith("rate limit"));
}

} // namespace
