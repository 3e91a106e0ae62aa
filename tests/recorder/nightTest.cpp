// What a recorder makes of a journal, asked as by somebody who was woken.

#include "recordingFixture.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

namespace {

constexpr const char *kDown = "kel.net.pg.uplink.transition.down";
constexpr const char *kLost = "nox.problem.net.connectivity.lost";
constexpr const char *kRestored = "nox.clear.net.connectivity.restored";
constexpr const char *kFull = "kel.vfat.filesystem.full";
constexpr const char *kFullEvent = "nox.problem.vfat.filesystem.full.other";

class NightTest : public RecordingTest {
protected:
    // An uplink goes and comes back; a full file system is reported once and then held back.
    void PlayNight()
    {
        mJournal.Hello(100).Begin();
        JournalOrigin down = mJournal.In(1, kDown, {"vmnic2", "web", "0", "1"});
        mJournal.Fate(down, JournalFate::Gathered, "until 03:12:02");
        mJournal.In(0, "kel.foo.bar", {"x"});
        mJournal.time += 2'000'000;
        std::uint64_t lost = mJournal.Out({down}, kLost, {"vSwitch0", "vmnic2", "web"});
        mJournal.Deliver(lost, JournalDelivery::Waiting, 1);
        mJournal.Add(JournalOutcomeEntry{JournalOutcome::Posted, {down}, 0, "no uplink is left"});
        JournalOrigin full = mJournal.In(2, kFull, {"boot", "4b3f-12aa"});
        std::uint64_t event = mJournal.Out({full}, kFullEvent, {"boot", "4b3f-12aa"});
        mJournal.Deliver(event, JournalDelivery::Limited);
        mJournal.Fate(full, JournalFate::Posted);
        full = mJournal.In(2, kFull, {"boot", "4b3f-12aa"});
        mJournal.Fate(full, JournalFate::HeldBack,
                      "within 300 s of the last one for boot; posts again after 03:17:02");
        mJournal.time += 1'200'000'000;
        mJournal.Deliver(lost, JournalDelivery::Delivered, 3);
    }
    void End()
    {
        mJournal.time = kNight + 3000'000'000; // behind four o'clock
        mJournal.Add(JournalEnd{});
    }
};

} // namespace

TEST_F(NightTest, EverythingHasItsLineInItsOrder)
{
    PlayNight();
    mJournal.Add(JournalDropped{7, 96, "record at byte 40: no magic"});
    End();
    Record();
    EXPECT_EQ("0 complete from 2026-03-01 03:12:00 to 2026-03-01 04:00:00, 4 observations, no gap\n"
              "2026-03-01 03:12:00.000000  daemon         keld 0.1.0 runs, as r1\n"
              "2026-03-01 03:12:00.000000  IN         o1  kel.net.pg.uplink.transition.down  vmnic2, web, "
              "0, 1  -> "
              "NetCorrelator: gathered (until 03:12:02), e1\n"
              "2026-03-01 03:12:00.000000  IN         o2  kel.foo.bar  x  -> wanted by nobody\n"
              "2026-03-01 03:12:02.000000  IN         o3  kel.vfat.filesystem.full  boot, 4b3f-12aa  -> "
              "VfatCorrelator: "
              "posted, e2\n"
              "2026-03-01 03:12:02.000000  IN         o4  kel.vfat.filesystem.full  boot, 4b3f-12aa  -> "
              "VfatCorrelator: "
              "held back (within 300 s of the last one for boot; posts again after 03:17:02)\n"
              "2026-03-01 03:12:02.000000  OUT        e1  nox.problem.net.connectivity.lost  Lost network "
              "connectivity on "
              "virtual switch vSwitch0. Physical NIC vmnic2 is down. Affected port groups: web  -> "
              "delivered, try 3 of 6, "
              "20 min later\n"
              "2026-03-01 03:12:02.000000  OUT        e2  nox.problem.vfat.filesystem.full.other  The VFAT "
              "filesystem boot "
              "(UUID 4b3f-12aa) is full.  -> limited: dropped, over 1000 in a minute\n"
              "2026-03-01 03:12:02.000000  receiver       the receiver took no event until 2026-03-01 "
              "03:32:02 (20 min), 1 try failed\n"
              "2026-03-01 03:32:02.000000  refused        channel 7 refused 96 bytes: record at byte 40: "
              "no magic\n",
              Ask("log"));
    EXPECT_THAT(Ask("log --undelivered"), Not(HasSubstr("e1")));
    EXPECT_THAT(Ask("log --object vmnic*"), Not(HasSubstr("o3")));
    EXPECT_THAT(Ask("log --type '*.full' --lines 1"), Not(HasSubstr("o3")));
    EXPECT_THAT(Ask("log --summary"),
                HasSubstr("1  4b3f-12aa  (0% of the event limit at 2026-03-01 03:12; 1 dropped"));
    EXPECT_THAT(
        Ask("log --json --object vmnic2"),
        HasSubstr("\"number\":\"e1\",\"id\":\"nox.problem.net.connectivity.lost\",\"object\":\"vmnic2\""));
}

TEST_F(NightTest, WhyIsAnsweredWithBecause)
{
    PlayNight();
    End();
    Record();
    EXPECT_THAT(
        Run("$KELADM why e1"),
        HasSubstr(
            "to 2026-03-01 03:32:02, 4 observations, no gap\n"
            "e1 nox.problem.net.connectivity.lost was made at 2026-03-01 03:12:02.000000: Lost network "
            "connectivity on virtual switch vSwitch0. Physical NIC vmnic2 is down. Affected port groups: "
            "web\n"
            "  It was handed over to the receiver (try 3 of 6), at 2026-03-01 03:32:02.\n"
            "  It came from 1 observation:\n"
            "    2026-03-01 03:12:00.000000 o1 kel.net.pg.uplink.transition.down  vmnic2, web, 0, 1\n"
            "      NetCorrelator gathered it and waited, because others may belong to it: until "
            "03:12:02.\n"));
    EXPECT_THAT(Run("$KELADM why o1"),
                HasSubstr("  At 2026-03-01 03:12:02: an event was posted, because no uplink"));
    EXPECT_THAT(
        Ask(std::string("why ") + kFull),
        HasSubstr(
            "  VfatCorrelator held it back, because the same was reported shortly before: within 300 s of "
            "the last one for boot; posts again after 03:17:02.\n"
            "  To be different: It would have to come later than the time that is named.\n"));
    EXPECT_THAT(Ask("why kel.foo.bar"), HasSubstr("It went to no agent, because none has subscribed"));
    EXPECT_THAT(Ask("why kel.net.nonsense"), HasSubstr("nobody knows it: NetCorrelator would get it"));
    EXPECT_THAT(
        Ask("why nox.problem.vfat.filesystem.full.scratch"),
        HasSubstr("was not made. It would come from:\nkel.vfat.filesystem.full, which came 2 times"));
    EXPECT_THAT(Run("$KELADM why 7"), StartsWith("1 keladm why: 7 is not in the recording"));
}

TEST_F(NightTest, AnExplanationSaysWhenItCameLast)
{
    PlayNight();
    End();
    Record();
    auto explain = [this](const std::string &name) {
        return Run("$KELADM explain " + name + " | tr -s ' \\n' ' '");
    };
    EXPECT_THAT(
        explain(kFull),
        HasSubstr(" recorded 2 times since 2026-03-01 03:12:00; the last at 2026-03-01 03:12:02, o4. "
                  "VfatCorrelator held it back, because the same was reported shortly before: within"));
    EXPECT_THAT(explain(kLost),
                HasSubstr(" recorded 1 time since 2026-03-01 03:12:00; the last at 2026-03-01 "
                          "03:12:02, e1. It was handed over to the receiver (try 3 of 6), at"));
    EXPECT_THAT(explain(kRestored), HasSubstr(" recorded not once since 2026-03-01 03:12:00 "));
    EXPECT_THAT(explain(std::string("--json ") + kFull),
                HasSubstr("\"recorded\":{\"since\":\"2026-03-01T03:12:00"));
    EXPECT_EQ(0, std::remove(File().c_str()));
    EXPECT_THAT(explain(kLost), Not(HasSubstr("recorded")));
    EXPECT_THAT(explain(std::string("--json ") + kLost), HasSubstr("\"recorded\":null"));
}

TEST_F(NightTest, TheLedgerBalancesAndSaysWhatDoesNot)
{
    PlayNight();
    mJournal.In(2, kFull, {"boot", "4b3f-12aa"}); // whose fate does not come
    End();
    Record();
    EXPECT_THAT(
        Ask("ledger"),
        HasSubstr("DOES NOT BALANCE  VfatCorrelator                  3 handed to it  = 1 posted + "
                  "1 held back + 1 "
                  "not told\n"
                  "  (not told: it waits still, came in a gap, or its daemon was killed before it told)\n"
                  "observations                    5 came          = 1 wanted by nobody + 4 handed "
                  "to some agent\n"
                  "events                          2 events        = 1 delivered + 1 limited\n"
                  "NetCorrelator                   1 handed to it  = 1 gathered\n"));
}

TEST_F(NightTest, AProblemIsOpenUntilItsClear)
{
    PlayNight();
    std::uint64_t other = mJournal.Out({}, kLost, {"vSwitch1", "vmnic3", "db"});
    mJournal.Deliver(other, JournalDelivery::Delivered);
    Record();
    const std::string open = Run("$KELADM open");
    EXPECT_THAT(open, HasSubstr("once  nox.problem.net.connectivity.lost  vmnic2\n"));
    EXPECT_THAT(open, HasSubstr("once  nox.problem.net.connectivity.lost  vmnic3\n"));
    EXPECT_THAT(open, HasSubstr("Without a clear of their own; --done N puts one aside:\n#2 "));

    EXPECT_THAT(Run("$KELADM open --done 2"),
                StartsWith("0 #2 nox.problem.vfat.filesystem.full.other 4b3f-12aa was"));
    EXPECT_THAT(Run("$KELADM open --done 2"), StartsWith("1 "));
    EXPECT_THAT(Run("$KELADM open"), Not(HasSubstr("#2 ")));
    mJournal.Out({}, kFullEvent, {"boot", "4b3f-12aa"});
    Record();
    EXPECT_THAT(Run("$KELADM open"), HasSubstr("#2 ")); // it has come again

    // A daemon that was started later never posts this clear, as it remembers no loss; but the other.
    mJournal.Out({}, "nox.problem.storage.connectivity.lost", {"naa.1", "hba1:C0:T0:L4", "ds1"});
    Record();
    EXPECT_THAT(Run("$KELADM open"), Not(HasSubstr("ORPHAN")));
    mJournal.Add(JournalEnd{}).NewRun(101).Begin();
    Record();
    EXPECT_THAT(Run("$KELADM open"), AllOf(HasSubstr("naa.1  ORPHAN"), Not(HasSubstr("vmnic2  ORPHAN"))));

    mJournal.Out({}, kRestored, {"vSwitch0", "web", "vmnic2"}); // ends the loss of any NIC
    mJournal.Out({}, "nox.clear.storage.redundancy.restored", {"naa.2", "ds1", "hba1:C0:T0:L4"});
    Record();
    EXPECT_THAT(Run("$KELADM open"), AllOf(Not(HasSubstr("vmnic")), HasSubstr("naa.1")));
    mJournal.Out({}, "nox.clear.storage.redundancy.restored", {"naa.1", "ds1", "hba1:C0:T0:L4"});
    Record();
    EXPECT_THAT(Run("$KELADM open"), HasSubstr("no problem waits for its clear\n"));
}

TEST_F(NightTest, WhatADaemonTakesWithItIsSaid)
{
    mJournal.Hello(100).Begin();
    JournalOrigin full = mJournal.In(2, kFull, {"boot", "4b3f-12aa"});
    mJournal.Deliver(mJournal.Out({full}, kFullEvent, {"boot", "4b3f-12aa"}), JournalDelivery::Waiting);
    mJournal.Fate(full, JournalFate::Posted);
    Record();
    mKeeper->Inventory("net/portgroups/web", "vSwitch0", 1, 300'000'000); // long after the last entry
    mKeeper->Inventory("net/portgroups/web", "vSwitch0", 2, 300'000'000);
    EXPECT_THAT(Run("$KELADM why e1"), HasSubstr("It waits for the next try"));
    mKeeper->Ended(CoverageEnd::DaemonGone);
    mJournal.time += 600'000'000;
    mJournal.NewRun(101).Begin();
    Record();
    EXPECT_THAT(Ask("log"),
                AllOf(HasSubstr("-> waiting, try 1 of 6, then lost with the daemon\n"),
                      HasSubstr("03:17:00.000000  host           net/portgroups/web = vSwitch0\n"
                                "2026-03-01 03:17:00.000000  host           net/portgroups/web removed")));
    EXPECT_THAT(Run("$KELADM why r1:e1"), HasSubstr("It was lost, because the daemon was gone"));
    EXPECT_THAT(Run("$KELADM why e1"), HasSubstr("started anew since: there is r1:e1\n"));
}

TEST_F(NightTest, WhenItIsWrittenMakesNoDifference)
{
    constexpr const char *kDump =
        "for t in observation event outcome problem notice sum noise; do sqlite3 night.db \"SELECT '$t', * "
        "FROM $t ORDER BY 2, 3, 4, 5\" || exit 77; done";
    auto play = [this](bool often) {
        mJournal = JournalMaker();
        PlayNight();
        mJournal.Add(JournalLost{2, JournalFate::Lost, 2, 3});
        End();
        Start();
        for (const std::string &entry : mJournal.Take()) {
            HearEntry(entry);
            if (often) mKeeper->Flush(0);
        }
        Stop(CoverageEnd::DaemonEnded);
        std::string dump = Run(kDump);
        EXPECT_EQ(0, std::system(("rm " + mRun.Path() + "/night.db*").c_str()));
        return dump;
    };
    const std::string once = play(false);
    if (once.starts_with("77")) GTEST_SKIP() << "no sqlite3";
    EXPECT_EQ(once, play(true));
}
