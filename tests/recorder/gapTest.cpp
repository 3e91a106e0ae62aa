// Every gap has its name, and a limit takes only what is oldest.

#include "recordingFixture.h"

#include "evidence.h"
#include "inventoryWatch.h"

#include <fmt/format.h>
#include <fstream>
#include <poll.h>
#include <sys/stat.h>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

class GapTest : public RecordingTest {
protected:
    void Pass(int count)
    {
        for (int i = 0; i < count; i++)
            mJournal.Fate(mJournal.In(1, "kel.net.x", {"vmnic2"}), JournalFate::NoHandler);
    }
    std::vector<std::string> Gaps()
    {
        Database database = OpenRecording(File());
        std::vector<std::string> texts;
        for (const EvidenceGap &gap : FindEvidence(database, {kNight, mJournal.time + 1}, false).gaps)
            texts.push_back(fmt::format(
                "{} {}", gap.observations ? fmt::format("{}", *gap.observations) : "?", gap.why));
        return texts;
    }
    std::int64_t Number(const std::string &sql) { return OpenRecording(File()).Number(sql); }
};

} // namespace

TEST_F(GapTest, ARecorderThatIsKilledLeavesAGapWithItsNumber)
{
    mJournal.Hello(100).Begin();
    Pass(3);
    Record();
    Pass(2);
    Hear();
    Kill(); // before these two are written
    mJournal.Miss(5);
    mJournal.time += 1'000'000;
    mJournal.Hello(100);
    Record();
    Kill(); // before any observation tells how many are missing
    mJournal.Hello(100).Begin();
    Pass(1);
    Record();
    Stop(CoverageEnd::RecorderStopped);
    EXPECT_EQ(4, Number("SELECT count(*) FROM observation"));
    EXPECT_EQ(7, Number("SELECT count FROM sum WHERE kind = 8"));
    EXPECT_THAT(Gaps(), ElementsAre("? the recorder was killed", "7 the recorder was killed",
                                    "? the recorder was stopped"));
}

TEST_F(GapTest, EachReasonHasItsName)
{
    mJournal.Hello(100).Begin();
    Pass(2);
    Record();
    mJournal.Miss(10).Add(JournalGap{50}).Begin(); // the recorder was too slow
    Pass(1);
    Record();
    mKeeper->Ended(CoverageEnd::DaemonGone);
    mJournal.time += 1'000'000;
    mJournal.NewRun(101).Miss(4).Begin();
    Pass(1);
    mJournal.Add(JournalEnd{});
    Record();
    mKeeper->Ended(CoverageEnd::DaemonGone); // which says no more than the end has said
    mJournal.time += 1'000'000;
    mJournal.NewRun(102).Begin(); // it was not running meanwhile: no gap
    Record();
    Kill();
    mJournal.NewRun(103).Begin().Add(JournalEnd{});
    Record();
    EXPECT_THAT(Gaps(), ElementsAre("10 the recorder could not keep up with the journal",
                                    "? the daemon was killed, with what it had not told yet",
                                    "4 the daemon ran before the recorder listened",
                                    "? the recorder was killed, and the daemon ended meanwhile",
                                    "? no recorder ran"));
    EXPECT_EQ(4, Number("SELECT max(run) FROM observation, run"));
}

// Where no recorder runs a daemon may run unseen, but not while one waits for it.
TEST_F(GapTest, NothingIsCompleteWithoutARecorder)
{
    mJournal.Hello(100).Begin().Add(JournalEnd{});
    Record();
    mKeeper->Ended(CoverageEnd::DaemonGone);
    mKeeper->NoDaemon(1'000'000, 0);
    mKeeper->Flush(60'000'000);
    mJournal.time += 60'000'000;
    EXPECT_EQ(0U, FindEvidence(mStore->Data(), {kNight, mJournal.time + 60'000'000}, true).gaps.size());
    mJournal.NewRun(101).Begin().Add(JournalEnd{});
    Record();
    EXPECT_THAT(Gaps(), ElementsAre("? no recorder ran"));
    mKeeper->Ended(CoverageEnd::DaemonGone);
    mKeeper->NoDaemon(0, 0);
    Stop(CoverageEnd::RecorderStopped);
    mJournal.time += 60'000'000;
    EXPECT_THAT(Gaps(), ElementsAre("? the recorder was stopped"));
    mJournal.NewRun(103).Miss(4).Begin();
    Record();
    EXPECT_THAT(Gaps(),
                ElementsAre("? the recorder was stopped", "4 the daemon ran before the recorder listened",
                            "? the recorder was killed"));
}

TEST_F(GapTest, WhatIsLostSaysWhereItStood)
{
    mJournal.Hello(100).Begin();
    JournalOrigin first = mJournal.In(1, "kel.net.x", {"vmnic2"});
    mJournal.In(1, "kel.net.x", {"vmnic2"});
    mJournal.Fate(first, JournalFate::NoHandler)
        .Add(JournalLost{1, JournalFate::Lost, 1, 2})
        .Add(JournalEnd{});
    Record();
    EXPECT_THAT(Ask("log --lost"),
                AllOf(HasSubstr("o2  kel.net.x  vmnic2  -> NetCorrelator: lost\n"),
                      HasSubstr("NetCorrelator had not taken 1 observations when the daemon ended"),
                      testing::Not(HasSubstr("o1"))));
}

TEST_F(GapTest, LimitsTakeTheOldestButNothingThatIsOpen)
{
    mJournal.Hello(100).Begin();
    JournalOrigin down = mJournal.In(1, "kel.net.pg.uplink.transition.down", {"vmnic2", "web", "0", "1"});
    mJournal.Out({down}, "nox.problem.net.connectivity.lost", {"vSwitch0", "vmnic2", "web"});
    mJournal.Fate(down, JournalFate::Posted);
    for (int i = 0; i < 20; i++) {
        Pass(1000);
        mJournal.time += 60'000'000;
        Record({2 << 20, UINT64_MAX});
    }
    while (mStore->Trim(mKeeper->Now())) {
    }
    Stop(CoverageEnd::RecorderStopped);
    EXPECT_THAT(Number("SELECT count(*) FROM observation"), AllOf(testing::Gt(1000), testing::Lt(15'000)));
    EXPECT_THAT(Number("SELECT (SELECT page_count FROM pragma_page_count) - (SELECT freelist_count FROM "
                       "pragma_freelist_count)"),
                testing::Lt(2 << 8));
    EXPECT_THAT(Run("$KELADM why e1"), HasSubstr("It came from 1 observation:\n"));
    EXPECT_THAT(Gaps().front(), "? what is older is not kept any more");

    Start({UINT64_MAX, 61'000'000}); // and by age
    while (mStore->Trim(mJournal.time)) {
    }
    Kill();
    EXPECT_EQ(1001, Number("SELECT count(*) FROM observation"));
}

TEST_F(GapTest, AFullDiskLosesTheOldestAndSaysSo)
{
    mJournal.Hello(100).Begin();
    Pass(3000);
    mJournal.time += 1'000'000;
    Record();
    mStore->Data().Run(
        fmt::format("PRAGMA max_page_count = {}", mStore->Data().Number("PRAGMA page_count")));
    mJournal.time += 1'000'000;
    Pass(200);
    Record();
    Kill();
    EXPECT_EQ(200, Number("SELECT count(*) FROM observation WHERE key > (1 << 40) + 3000"));
    EXPECT_THAT(Ask("log --lines 100000"),
                HasSubstr("limit          the disk was full or nearly so: what was oldest went"));
}

TEST_F(GapTest, OnlyARecordingIsRecordedInto)
{
    auto record = [this] { return Run("timeout 20 $KELADM record --journal /dev/null"); };
    EXPECT_THAT(Run("$KELADM log"), HasSubstr("night.db: no recording; \"keladm record\" makes one"));
    std::ofstream(File()) << "a letter, of some length, that is no database whatsoever";
    EXPECT_THAT(record(),
                HasSubstr("night.db: no recording, but a file of another kind; it stays as it is"));
    EXPECT_EQ(0, std::remove(File().c_str()));
    {
        Database(File(), SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE).Run("CREATE TABLE letter(text)");
    }
    EXPECT_THAT(record(), HasSubstr("night.db: a database, but no recording"));
    EXPECT_EQ(0, std::remove(File().c_str()));
    EXPECT_THAT(record(), StartsWith("0 "));
    struct stat info {};
    ASSERT_EQ(0, stat(File().c_str(), &info));
    EXPECT_EQ(0640U, info.st_mode & 0777);

    Start();
    EXPECT_THAT(record(), HasSubstr("night.db: another recorder keeps it"));
    mStore->Data().Run("PRAGMA user_version = 2");
    Kill();
    EXPECT_THAT(record(),
                HasSubstr("night.db: a recording of version 2, and this program knows version 1"));
    EXPECT_THAT(Run("$KELADM open"), HasSubstr("a recording of version 2"));
    EXPECT_THAT(Run("$KELADM record --file /proc/night.db"),
                StartsWith("1 keladm record: /proc/night.db.lock: "));
}

TEST_F(GapTest, ChangesOfTheInventoryAreToldOnce)
{
    mRun.Host("storage/paths/hba1:C0:T0:L4", "naa.1");
    InventoryWatch watch;
    auto look = [&] {
        std::vector<std::string> told;
        watch.Look([&](const std::string &path, const std::string &value, int change) {
            told.push_back(fmt::format("{} {} {}", change, path, value));
        });
        return told;
    };
    EXPECT_THAT(look(), ElementsAre("0 storage/paths/hba1:C0:T0:L4 naa.1"));
    mRun.Host("storage/paths/hba1:C0:T0:L4", "naa.2");
    mRun.Host("net/portgroups/a%2Fb", "vSwitch0");
    pollfd ready{watch.Get(), POLLIN, 0};
    EXPECT_EQ(1, poll(&ready, 1, 20'000));
    EXPECT_THAT(look(),
                ElementsAre("1 net/portgroups/a%2Fb vSwitch0", "1 storage/paths/hba1:C0:T0:L4 naa.2"));
    EXPECT_THAT(look(), ElementsAre());
    mRun.RemoveHost("storage/paths");
    EXPECT_EQ(1, poll(&ready, 1, 20'000));
    EXPECT_THAT(look(), ElementsAre("2 storage/paths/hba1:C0:T0:L4 naa.2"));
}
