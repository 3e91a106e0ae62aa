// The journal, in this process: entries go in through its hooks, listeners read its socket.

#include "keldJournal.h"

#include "journalReader.h"
#include "keldDispatch.h"
#include "keldFate.h"
#include "observation.h"
#include "runDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

using testing::IsEmpty;

namespace {

// ---- The books --------------------------------------------------------------------------------------

using Bodies = std::vector<decltype(JournalEntry::body)>;

JournalLedger Kept(const Bodies &bodies)
{
    JournalLedger ledger;
    std::uint64_t number = 1;
    for (const auto &body : bodies) {
        ledger.Take({number, 0, body});
        if (!std::holds_alternative<JournalHello>(body)) ++number;
    }
    return ledger;
}

TEST(JournalLedgerTest, BooksWithAnyEntryMissingDoNotBalance)
{
    JournalHello hello;
    hello.agents = {{0, 0, "NetCorrelator"}, {1, 0, "VfatCorrelator"}};
    const Bodies whole{hello,
                       JournalBegin{7, 3, {{0, 5}, {1, 2}}},
                       JournalFateEntry{{0, 5}, JournalFate::Posted, ""}, // from before
                       JournalIn{8, 22, {{0, 6}, {1, 3}}, {}},
                       JournalIn{9, 22, {{0, 7}}, {}},
                       JournalIn{10, 22, {}, {}},
                       JournalFateEntry{{0, 6}, JournalFate::Posted, ""},
                       JournalFateEntry{{1, 3}, JournalFate::Noted, ""},
                       JournalOut{4, {{0, 6}}, 0, "nox.problem.x", {}},
                       JournalDeliveryEntry{4, JournalDelivery::Waiting, 1},
                       JournalDeliveryEntry{4, JournalDelivery::Delivered, 2},
                       JournalLost{0, JournalFate::Lost, 6, 7},
                       JournalEnd{0, 10, 4}};
    EXPECT_THAT(Kept(whole).Faults(), IsEmpty());
    EXPECT_THAT(Kept({whole.begin(), whole.end() - 2}).Open(),
                testing::ElementsAre("NetCorrelator has no fate for its observations 7 to 7"));
    for (const std::size_t needed : {3U, 4U, 5U, 6U, 7U, 8U, 10U, 11U}) {
        Bodies cut = whole;
        cut.erase(cut.begin() + static_cast<std::ptrdiff_t>(needed));
        EXPECT_FALSE(Kept(cut).Faults().empty()) << needed;
        Bodies twice = whole;
        twice.insert(twice.begin() + static_cast<std::ptrdiff_t>(needed), whole[needed]);
        EXPECT_FALSE(Kept(twice).Faults().empty()) << needed;
        cut.insert(cut.begin() + static_cast<std::ptrdiff_t>(needed), JournalGap{needed});
        EXPECT_THAT(Kept(cut).Faults(), IsEmpty()) << needed;
    }
}

// ---- Listeners --------------------------------------------------------------------------------------

class JournalTest : public testing::Test {
protected:
    JournalTest() { EXPECT_EQ(0, KeldJournalOpen("test")); }

    // From here on it misses nothing.
    static void AwaitHello(JournalReader &reader)
    {
        bool come = false;
        reader.seen = [&](const JournalEntry &entry) {
            come |= std::holds_alternative<JournalHello>(entry.body);
        };
        EXPECT_TRUE(reader.ReadUntil([&] { return come; }));
        reader.seen = nullptr;
    }

    RunDir runDir;
};

TEST_F(JournalTest, TwoListenAndNobodyElseUntilOneOfThemLeaves)
{
    struct stat file {};
    EXPECT_EQ(0, stat(runDir.Path("keld-journal.sock").c_str(), &file));
    EXPECT_EQ(0600U, file.st_mode & 0777U);

    std::optional<JournalReader> first(std::in_place), second(std::in_place);
    AwaitHello(*first);
    AwaitHello(*second);
    JournalReader third;
    EXPECT_FALSE(third.ReadUntil([] { return false; }));
    EXPECT_THAT(third.ledger.Total().missing, 0U);

    second.reset();
    bool served = false;
    EXPECT_TRUE(WaitUntil([&] {
        JournalReader next;
        next.seen = [&](const JournalEntry &) { served = true; };
        return next.ReadUntil([&] { return served; });
    }));
    first.reset();
    EXPECT_TRUE(WaitUntil([] { return !KeldJournalHeard(); }));
}

TEST_F(JournalTest, WhatAListenerIsTooSlowForIsAGapByNumbersAndDelaysNobody)
{
    JournalReader slow;
    AwaitHello(slow);
    EXPECT_TRUE(KeldJournalBeginDue());
    KeldJournalTellBegin({});
    constexpr std::uint64_t kTold = 400;
    const std::string record(100'000, 'x');
    for (std::uint64_t number = 1; number <= kTold; ++number)
        KeldJournalTell([&] { return JournalIn{number, 22, {}, {record}}; });
    KeldJournalEnd({0, kTold, 0});

    std::uint64_t read = 0, begins = 0; // a begin can be too much as well
    slow.seen = [&](const JournalEntry &entry) {
        begins += std::holds_alternative<JournalBegin>(entry.body);
        const auto *in = std::get_if<JournalIn>(&entry.body);
        if (in == nullptr) return;
        ++read;
        EXPECT_EQ(in->observation + 1, entry.number); // the begin came first
    };
    EXPECT_TRUE(slow.ReadToTheEnd());
    EXPECT_THAT(slow.ledger.Faults(), IsEmpty());
    EXPECT_LT(150U, read) << "of what the store holds";
    EXPECT_LT(0U, slow.ledger.Total().missing);
    EXPECT_EQ(1 + kTold, begins + read + slow.ledger.Total().missing);
    EXPECT_TRUE(KeldJournalBeginDue());
}

// ---- What is told -----------------------------------------------------------------------------------

TEST_F(JournalTest, EveryEventThatIsToldBeforeABeginIsAmongThoseThatItCounts)
{
    JournalReader reader;
    AwaitHello(reader);
    constexpr std::uint64_t kEvents = 50'000;
    std::jthread agent([] {
        for (JournalOut out; out.event < kEvents;) {
            out.event = KeldJournalNextEvent();
            KeldJournalTell([&] { return out; });
        }
    });
    JournalBegin large; // so that it takes a while to render
    large.queued.resize(2000);
    for (int i = 0; i < 100; ++i)
        KeldJournalTellBegin(large);
    agent.join();
    KeldJournalEnd({0, 0, KeldJournalEvents()});

    std::uint64_t told = 0;
    reader.seen = [&](const JournalEntry &entry) {
        if (const auto *out = std::get_if<JournalOut>(&entry.body)) told = out->event;
        if (const auto *begin = std::get_if<JournalBegin>(&entry.body)) {
            EXPECT_LE(told, begin->events);
        }
    };
    EXPECT_TRUE(reader.ReadToTheEnd());
    EXPECT_EQ(kEvents, told);
}

TEST_F(JournalTest, WhatAnAgentLeavesBehindIsLostAndWhatItHandledIsNot)
{
    JournalReader reader;
    AwaitHello(reader);
    EXPECT_EQ(0, KeldDispatchInit());
    KeldSubscription net;
    KeldStream *ends = nullptr, *stays = nullptr;
    EXPECT_EQ(0, KeldSubscriptionAddDomain(&net, "net"));
    EXPECT_EQ(0, KeldStreamRegister(std::make_shared<std::string>("Ends"), net, &ends));
    EXPECT_EQ(0, KeldStreamRegister(std::make_shared<std::string>("Stays"), net, &stays));
    RecordBytes batch;
    for (const char *id : {"kel.net.first", "kel.net.second", "kel.other.x", "kel.net.third"}) {
        const RecordBytes record = MakeRecord(id, "%s", "vmnic0");
        batch.insert(batch.end(), record.begin(), record.end());
    }
    EXPECT_EQ(0, KeldDispatch(7, batch.data(), batch.size()));
    Kel *kel = nullptr;
    bool complete = false;
    EXPECT_EQ(0, KeldStreamReadKel(ends, &kel, &complete));
    EXPECT_TRUE(complete);
    {
        const KeldHandling handling({ends->number, ends->taken});
        KeldSay(KeldFate::HeldBack, "for %d s", 90);
    }
    Kel_Free(kel);
    EXPECT_EQ(0, KeldStreamUnregister(ends));
    KeldDispatchTellLost();
    KeldJournalEnd({0, KeldDispatchCount(), 0});

    std::vector<std::string> told;
    reader.seen = [&](const JournalEntry &entry) {
        if (const auto *fate = std::get_if<JournalFateEntry>(&entry.body)) told.emplace_back(fate->text);
        if (const auto *lost = std::get_if<JournalLost>(&entry.body))
            told.push_back(std::to_string(lost->agent) + " " + std::string(JournalWord(lost->fate)));
    };
    EXPECT_TRUE(reader.ReadToTheEnd());
    EXPECT_THAT(told, testing::ElementsAre("for 90 s", "0 agent ended", "1 lost"));
    EXPECT_THAT(reader.ledger.Faults(), IsEmpty());
    const JournalLedger::Sums &sums = reader.ledger.Total();
    EXPECT_EQ(4U, sums.observations);
    EXPECT_EQ(1U, sums.unwanted);
    EXPECT_EQ(6U, sums.handed);
    EXPECT_EQ(1U, sums.fates);
    EXPECT_EQ(5U, sums.lost);
}

} // namespace
