// The channels against producers that are well-behaved, careless, hostile or gone.
#include "systemTest.h"

#include <functional>
#include <sys/socket.h>

namespace {

class ChannelTest : public SystemTest {
protected:
    void SetUp() override { Start(kShippedDaemon); }

    void ExpectDelivery(RawProducer &producer, const std::string &message)
    {
        EXPECT_EQ(0, producer.Send(Report(message)));
        EXPECT_EQ(Reported(Texts{message}), receiver.WaitForTexts(1));
    }

    // Batches of records that fill exactly size bytes, numbered from 0 on.
    static RecordBytes BatchOf(std::size_t size, Texts *messages)
    {
        const std::size_t empty = Report("").size();
        RecordBytes batch;
        while (batch.size() < size) {
            const std::size_t left = size - batch.size();
            const std::size_t length = left < 3 * 1000 ? left : 1000;
            std::string message = std::to_string(messages->size());
            message.resize(length - empty, '.');
            const RecordBytes record = Report(message);
            batch.insert(batch.end(), record.begin(), record.end());
            messages->push_back(message);
        }
        return batch;
    }
};

TEST_F(ChannelTest, EveryContextDelivers)
{
    Texts messages;
    for (int context = 0; context <= kUser; ++context) {
        messages.push_back("from context " + std::to_string(context));
        SendReport(context, messages.back());
        EXPECT_EQ(Reported(Texts{messages.back()}), receiver.WaitForTexts(1));
    }
}

TEST_F(ChannelTest, LargestBatchIsDeliveredWhole)
{
    for (const int context : {5, kUser}) {
        Texts messages;
        const RecordBytes batch = BatchOf(KELLIB_BATCH_BYTES_MAX, &messages);
        ASSERT_EQ(0x1FFFFU, batch.size());
        RawProducer producer(context);
        EXPECT_EQ(0, producer.Send(batch));
        EXPECT_EQ(Reported(messages), receiver.WaitForTexts(messages.size()));
    }
}

TEST_F(ChannelTest, LargerDatagramIsLostAndTheNextDelivered)
{
    for (const std::size_t size : {0x20000U, 0x20001U, 150000U}) {
        Texts messages;
        RawProducer producer(5);
        ASSERT_EQ(0, producer.Send(BatchOf(size, &messages)));
        SendReport(6, "channels are served in order");
        EXPECT_EQ(1U, receiver.WaitFor(1).size());
        ExpectDelivery(producer, "the next");
    }
}

TEST_F(ChannelTest, LargerPacketIsLostAndTheNextDelivered)
{
    Texts messages;
    RawProducer producer(kUser);
    ASSERT_EQ(0, producer.Send(BatchOf(0x20000, &messages)));
    ExpectDelivery(producer, "the next");
    EXPECT_EQ(1U, daemon->Log().LinesWith("user: dropped 131072 bytes").size());
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

TEST_F(ChannelTest, ProducersThatSendAndLeaveAreHeard)
{
    Settle();
    const std::size_t descriptors = daemon->DescriptorCount();
    for (int i = 0; i < 50; ++i) {
        SendReport(kUser, "farewell");
        EXPECT_EQ(1U, receiver.WaitFor(1).size());
    }
    EXPECT_TRUE(WaitUntil([&] { return daemon->DescriptorCount() <= descriptors; }));
}

TEST_F(ChannelTest, SilentAndHalfClosedProducersCostNothing)
{
    std::vector<RawProducer> silent;
    for (int i = 0; i < 4; ++i)
        silent.emplace_back(kUser);
    std::vector<RawProducer> halfClosed;
    for (int i = 0; i < 4; ++i) {
        halfClosed.emplace_back(kUser);
        shutdown(halfClosed.back().Fd(), SHUT_WR);
    }
    for (RawProducer &producer : halfClosed)
        EXPECT_TRUE(producer.WaitUntilClosed());
    const auto before = daemon->ProcessorTime();
    UseProcessorTime(std::chrono::milliseconds(300));
    EXPECT_GT(std::chrono::milliseconds(60), daemon->ProcessorTime() - before);

    RawProducer another(kUser);
    ExpectDelivery(another, "room again");
    ExpectDelivery(silent.front(), "speaks at last");
}

TEST_F(ChannelTest, EmptyPacketEndsAConnection)
{
    RawProducer producer(kUser);
    ExpectDelivery(producer, "before");
    EXPECT_EQ(0, producer.Send({}));
    EXPECT_TRUE(producer.WaitUntilClosed());
}

// ---- Records that are none ------------------------------------------------------------------------------

// The report "low", as bytes: the ID at 32, the message format at 51, the arguments at 60, the texts
// at 108, 118 and 142, the end at 146.
struct Damage {
    const char *what;
    std::function<void(RecordBytes &)> inflict;
};

void Put(RecordBytes &record, std::size_t offset, std::uint64_t value, std::size_t size = 4)
{
    for (std::size_t i = 0; i < size; ++i, value >>= 8)
        record.at(offset + i) = static_cast<std::byte>(value & 0xFF);
}

auto Word(std::size_t offset, std::uint32_t value)
{
    return [=](RecordBytes &record) { Put(record, offset, value); };
}
auto Byte(std::size_t offset, char value)
{
    return [=](RecordBytes &record) { record[offset] = static_cast<std::byte>(value); };
}
auto Size(std::size_t size)
{
    return [=](RecordBytes &record) { record.resize(size); };
}
auto Offset(std::size_t argument, std::uint64_t value)
{
    return [=](RecordBytes &record) { Put(record, 60 + 16 * argument + 8, value, 8); };
}
auto Length(std::size_t argument, std::uint32_t value) { return Word(60 + 16 * argument + 4, value); }

// clang-format off
const Damage kDamages[] = {
    {"one byte",                               Size(1)},
    {"half a header",                          Size(16)},
    {"a header but for a byte",                Size(31)},
    {"a header alone",                         Size(32)},
    {"an ID cut short",                        Size(40)},
    {"arguments cut short",                    Size(100)},
    {"a text cut short",                       Size(145)},
    {"a byte too many",                        Size(147)},
    {"a header's worth too many",              Size(146 + 32)},
    {"no magic",                               Word(8, 0)},
    {"another version's magic",                Byte(11, '2')},
    {"one argument too many for the area",     Word(12, 7)},
    {"33 arguments",                           Word(12, 33)},
    {"all the arguments in the world",         Word(12, 0xFFFFFFFF)},
    {"no length",                              Word(16, 0)},
    {"a length below the header's",            Word(16, 31)},
    {"a length below the least",               Word(16, 34)},
    {"a length one less",                      Word(16, 145)},
    {"a length one more",                      Word(16, 147)},
    {"the greatest length",                    Word(16, 0xFFFFFFFF)},
    {"a negative length",                      Word(16, 0x80000000)},
    {"a message format in the header",         Word(20, 0)},
    {"a message format inside the ID",         Word(20, 50)},
    {"a gap before the message format",        Word(20, 52)},
    {"a message format behind the end",        Word(20, 0xFFFFFFF0)},
    {"arguments in the header",                Word(24, 0)},
    {"arguments inside the message format",    Word(24, 58)},
    {"a gap before the arguments",             Word(24, 61)},
    {"arguments behind the end",               Word(24, 147)},
    {"arguments far behind the end",           Word(24, 0xFFFFFFFF)},
    {"an ID without length",                   Word(28, 0)},
    {"an ID of its NUL alone",                 Word(28, 1)},
    {"an ID one longer",                       Word(28, 20)},
    {"an ID one shorter",                      Word(28, 18)},
    {"the longest ID and one",                 Word(28, 129)},
    {"an ID of any length",                    Word(28, 0xFFFFFFFF)},
    {"a blank in the ID",                      Byte(35, ' ')},
    {"a slash in the ID",                      Byte(35, '/')},
    {"a NUL in the ID",                        Byte(35, '\0')},
    {"an ID without end",                      Byte(50, 'x')},
    {"a message format without end",           Byte(59, 'x')},
    {"a text before the area's texts",         Offset(0, 47)},
    {"a text at nothing",                      Offset(0, 0)},
    {"a text behind the end",                  Offset(1, 86)},
    {"a text across the end",                  Offset(2, 83)},
    {"a text before the beginning",            Offset(1, 0xFFFFFFFFFFFFFFFF)},
    {"a text without length",                  Length(0, 0)},
    {"a text one longer",                      Length(0, 11)},
    {"a text one shorter",                     Length(0, 9)},
    {"a text of any length",                   Length(2, 0xFFFFFFFF)},
    {"a NUL in a text",                        Byte(112, '\0')},
    {"a text without end",                     Byte(145, 'x')},
};
// clang-format on

TEST_F(ChannelTest, DamagedRecordsAreDroppedAndTheNextDelivered)
{
    const RecordBytes sound = Report("low");
    ASSERT_EQ(146U, sound.size());
    Texts sent;
    int context = 0;
    for (const Damage &damage : kDamages) {
        RecordBytes damaged = sound;
        damage.inflict(damaged);
        RawProducer producer(context);
        EXPECT_EQ(0, producer.Send(damaged));
        ExpectDelivery(producer, damage.what);
        const std::string name = context == kUser ? "user" : "async-" + std::to_string(context);
        EXPECT_FALSE(daemon->Log().LinesWith(name + ": dropped ").empty()) << damage.what;
        context = (context + 1) % (kUser + 1);
    }
    EXPECT_EQ(std::size(kDamages), daemon->Log().LinesWith(": dropped ").size());
    Settle();
    EXPECT_EQ(Texts(std::size(kDamages), "kel.external.error"), Received());
}

TEST_F(ChannelTest, OneDamagedRecordSpoilsItsBatchAlone)
{
    RecordBytes batch = Report("low");
    RecordBytes damaged = batch;
    Put(damaged, 8, 0);
    batch.insert(batch.end(), damaged.begin(), damaged.end());
    RawProducer producer(8);
    EXPECT_EQ(0, producer.Send(Report("before")));
    EXPECT_EQ(0, producer.Send(batch));
    EXPECT_EQ(0, producer.Send(Report("behind")));
    EXPECT_EQ(Reported(Texts{"before", "behind"}), receiver.WaitForTexts(2));
    Settle();
    EXPECT_EQ(2U, Received().size());
    EXPECT_TRUE(daemon->Log().WaitForLine("async-8: dropped 292 bytes: record at byte 146: "));
}

// An argument may be of a type that nobody reads yet.
TEST_F(ChannelTest, ReservedArgumentTypeIsCarried)
{
    RecordBytes record = Report("low");
    Put(record, 60 + 32, 5);
    RawProducer producer(8);
    EXPECT_EQ(0, producer.Send(record));
    Settle();
    EXPECT_EQ(Texts{"kel.external.error"}, Received());
    EXPECT_EQ(Texts{}, receiver.DrainTexts());
}

} // namespace
