// The channels against producers that are well-behaved, careless, hostile or gone.
#include "systemTest.h"

#include <atomic>
#include <csignal>
#include <journalReader.h>
#include <sys/socket.h>
#include <thread>
#include <unixSocket.h>

namespace {

class ChannelTest : public SystemTest {
protected:
    void SetUp() override { Start(kShippedDaemon); }

    void ExpectDelivery(RawProducer &producer, const std::string &message)
    {
        EXPECT_EQ(0, producer.Send(Report(message)));
        EXPECT_EQ(Reported(Texts{message}), receiver.WaitForTexts(1));
    }

    // Records that fill exactly size bytes, numbered from 0 on.
    static RecordBytes BatchOf(std::size_t size, Texts *messages)
    {
        const std::size_t empty = Report("").size();
        RecordBytes batch;
        while (batch.size() < size) {
            const std::size_t left = size - batch.size();
            std::string message = std::to_string(messages->size());
            message.resize((left < 3 * 1000 ? left : 1000) - empty, '.');
            const RecordBytes record = Report(message);
            batch.insert(batch.end(), record.begin(), record.end());
            messages->push_back(message);
        }
        return batch;
    }
};

TEST_F(ChannelTest, LargestBatchIsDeliveredWholeAndWhatIsLargerIsLostAlone)
{
    for (const int context : {5, kUser}) {
        RawProducer producer(context);
        Texts messages, lost;
        EXPECT_EQ(0, producer.Send(BatchOf(KELLIB_BATCH_BYTES_MAX, &messages)));
        EXPECT_EQ(Reported(messages), receiver.WaitForTexts(messages.size()));
        for (const std::size_t size : {0x20000U, 0x20001U, 150000U}) {
            ASSERT_EQ(0, producer.Send(BatchOf(size, &lost)));
            RawProducer next(context == kUser ? kUser : 6); // channels are served in order
            ExpectDelivery(next, "behind it");
            ExpectDelivery(producer, "the next");
        }
    }
    EXPECT_EQ(1U, daemon->Log().LinesWith("user: dropped 131072 bytes").size());
}

TEST_F(ChannelTest, WhatAChannelRefusesIsToldToTheJournal)
{
    ASSERT_TRUE(WaitUntil([&] { return IsListening(host.Path("keld-journal.sock")); }));
    JournalReader journal;
    Texts told;
    bool heard = false;
    journal.seen = [&](const JournalEntry &entry) {
        heard = true;
        if (const auto *dropped = std::get_if<JournalDropped>(&entry.body))
            told.push_back(std::to_string(dropped->channel) + " " + std::string(dropped->why));
    };
    EXPECT_TRUE(journal.ReadUntil([&] { return heard; }));
    RecordBytes malformed = Report("malformed");
    malformed[8] = std::byte{'X'};
    for (const int context : {3, kUser}) {
        EXPECT_EQ(0, RawProducer(context).Send(malformed));
        EXPECT_TRUE(journal.ReadUntil([&] { return told.size() == (context == kUser ? 2 : 1); }));
    }
    Texts lost;
    EXPECT_EQ(0, RawProducer(4).Send(BatchOf(0x20000, &lost)));
    EXPECT_TRUE(journal.ReadUntil([&] { return told.size() == 3; }));
    const std::string what = " record at byte 0: wrong magic";
    EXPECT_EQ((Texts{"3" + what, "22" + what, "4 larger than a batch may be"}), told);
}

TEST_F(ChannelTest, AFloodOnOneChannelDelaysNoOther)
{
    std::atomic<bool> stopped = false;
    std::thread flood([&] {
        const RecordBytes record = MakeRecord("kel.net.ignored", "%s", std::string(7'000, '.').c_str());
        RawProducer producer(0);
        while (!stopped && producer.Send(record) == 0) {
        }
    });
    RawProducer producer(21);
    for (int i = 0; i < 20; ++i)
        ExpectDelivery(producer, "in between");
    EXPECT_EQ(0, daemon->Terminate(SIGTERM));
    stopped = true;
    flood.join();
}

TEST_F(ChannelTest, OneDamagedRecordSpoilsItsBatchAlone)
{
    RecordBytes batch = Report("low"), damaged = batch;
    damaged[8] = std::byte{0}; // of the magic
    batch.insert(batch.end(), damaged.begin(), damaged.end());
    RawProducer producer(8);
    EXPECT_EQ(0, producer.Send(Report("before")));
    EXPECT_EQ(0, producer.Send(batch));
    EXPECT_EQ(0, producer.Send(Report("behind")));
    EXPECT_EQ(Reported(Texts{"before", "behind"}), receiver.WaitForTexts(2));
    EXPECT_TRUE(daemon->Log().WaitForLine("async-8: dropped 292 bytes: record at byte 146: "));
}

TEST_F(ChannelTest, NinthProducerIsClosedAtOnce)
{
    std::vector<RawProducer> eight;
    for (int i = 0; i < 8; ++i) {
        eight.emplace_back(kUser);
        ExpectDelivery(eight.back(), "producer " + std::to_string(i));
    }
    const std::size_t descriptors = daemon->DescriptorCount();
    EXPECT_TRUE(RawProducer(kUser).WaitUntilClosed());
    for (RawProducer &producer : eight)
        ExpectDelivery(producer, "goes on");

    // Not the last one: another moves into its place.
    eight.erase(eight.begin() + 1);
    EXPECT_TRUE(WaitUntil([&] { return daemon->DescriptorCount() < descriptors; }));
    eight.emplace_back(kUser);
    for (RawProducer &producer : eight)
        ExpectDelivery(producer, "goes on");
}

TEST_F(ChannelTest, ProducersThatComeAndGoOrStaySilentCostNothing)
{
    std::vector<RawProducer> silent;
    for (int i = 0; i < 4; ++i)
        silent.emplace_back(kUser);
    ExpectDelivery(silent.back(), "all are accepted");
    const std::size_t descriptors = daemon->DescriptorCount();
    for (int i = 0; i < 50; ++i) {
        SendReport(kUser, "farewell");
        EXPECT_EQ(1U, receiver.WaitFor(1).size());
    }
    for (int i = 0; i < 4; ++i) {
        RawProducer halfClosed(kUser);
        EXPECT_EQ(0, halfClosed.Send(Report("its last")));
        shutdown(halfClosed.Fd(), SHUT_WR);
        EXPECT_TRUE(halfClosed.WaitUntilClosed());
        EXPECT_EQ(1U, receiver.WaitFor(1).size());
    }
    EXPECT_TRUE(WaitUntil([&] { return daemon->DescriptorCount() == descriptors; }));
    const auto before = daemon->ProcessorTime();
    UseProcessorTime(std::chrono::milliseconds(300));
    EXPECT_GT(std::chrono::milliseconds(60), daemon->ProcessorTime() - before);
    ExpectDelivery(silent.front(), "speaks at last");
}

} // namespace
