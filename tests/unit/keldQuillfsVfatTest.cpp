// The two correlators of the host's own file systems, and the quiet period that they share.
#include "correlatorFixture.h"
#include "keldDomains.h"

#include <filesystem>
#include <functional>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

class LocalFileSystemTest : public CorrelatorTest {
protected:
    using CorrelatorTest::CorrelatorTest;

    // observe() posts once, is quiet for 300 seconds after each observation, and posts again after 301.
    void ExpectQuietPeriod(const std::function<void()> &observe)
    {
        observe();
        EXPECT_THAT(Events(), SizeIs(1)) << "the first";
        clock.Advance(300);
        observe();
        EXPECT_THAT(Events(), IsEmpty()) << "after 300 seconds";
        clock.Advance(301);
        observe();
        EXPECT_THAT(Events(), SizeIs(1)) << "after 301 seconds";
    }

    // However often observe() is called, less than the quiet period apart, it posts once.
    void ExpectRenewal(const std::function<void()> &observe)
    {
        for (int i = 0; i < 4; ++i) {
            observe();
            clock.Advance(200);
        }
        EXPECT_THAT(Events(), SizeIs(1));
    }
};

class QuillfsCorrelatorTest : public LocalFileSystemTest {
protected:
    QuillfsCorrelatorTest() : LocalFileSystemTest(keldQuillfsDomain) {}

    void ObserveInodeTableFull(const char *directory, const char *name)
    {
        Observe(
            MakeKel("kel.quillfs.ramdisk.inodetable.full", "%s %s %s %s", directory, name, "snmpd", "var"));
    }
    void ObserveRamdiskFull(const char *file)
    {
        Observe(MakeKel("kel.quillfs.ramdisk.full", "%s %s", file, "tmp"));
    }
    void ObserveFailure(const char *id = "kel.quillfs.heap.exhausted") { Observe(MakeKel(id, "%d", 12)); }

    const char *none = nullptr; // a literal one is a warning
};

TEST_F(QuillfsCorrelatorTest, ReportsNameTheRamdiskFirstAndTheWholePath)
{
    ObserveInodeTableFull("/var/run", "snmpd.pid");
    ObserveRamdiskFull("/tmp/bundle.tgz");
    EXPECT_THAT(Events(),
                ElementsAre("nox.problem.quillfs.ramdisk.inodetable.full(var, /var/run/snmpd.pid, snmpd)",
                            "nox.problem.quillfs.ramdisk.full(tmp, /tmp/bundle.tgz)"));
}

TEST_F(QuillfsCorrelatorTest, EachReportIsQuietFor300Seconds)
{
    ExpectQuietPeriod([this] { ObserveInodeTableFull("/var/run", "snmpd.pid"); });
    ExpectQuietPeriod([this] { ObserveRamdiskFull("/tmp/bundle.tgz"); });
    ExpectQuietPeriod([this] { ObserveFailure(); });
}

TEST_F(QuillfsCorrelatorTest, Kept_WhatKeepsFailingIsReportedOnce)
{
    ExpectRenewal([this] { ObserveInodeTableFull("/var/run", "snmpd.pid"); });
    ExpectRenewal([this] { ObserveRamdiskFull("/tmp/bundle.tgz"); });
    ExpectRenewal([this] { ObserveFailure(); });
}

TEST_F(QuillfsCorrelatorTest, FilesAreReportedApart)
{
    ObserveRamdiskFull("/tmp/bundle.tgz");
    ObserveRamdiskFull("/tmp/core.1");
    ObserveInodeTableFull("/tmp", "core.1");
    ObserveInodeTableFull("/var/run", "core.1");
    EXPECT_THAT(Events(), SizeIs(4));
}

TEST_F(QuillfsCorrelatorTest, OneFileIsOneHoweverItsPathIsCut)
{
    ObserveInodeTableFull("/var", "run/snmpd.pid");
    ObserveInodeTableFull("/var/run", "snmpd.pid");
    EXPECT_THAT(Events(), SizeIs(1));
}

TEST_F(QuillfsCorrelatorTest, OtherFailuresAreOneAndLeaveTheirTraceLine)
{
    ObserveFailure("kel.quillfs.heap.exhausted");
    ObserveFailure("kel.quillfs.tardisk.corrupt");
    EXPECT_THAT(Events(), ElementsAre("nox.problem.quillfs.failure()"));
    EXPECT_THAT(log.LinesWith("[kel.quillfs.heap.exhausted]"), SizeIs(1));
    EXPECT_THAT(log.LinesWith("[kel.quillfs.tardisk.corrupt]"), SizeIs(1));
}

TEST_F(QuillfsCorrelatorTest, WriteToAReadOnlyFileIsNeitherReportedNorAFailure)
{
    Observe(MakeKel("kel.quillfs.tardisk.readonlyfile", "%s", "/bin/sh"));
    EXPECT_THAT(Events(), IsEmpty());
    ObserveFailure();
    EXPECT_THAT(Events(), SizeIs(1)) << "the failures' quiet period has not begun";
}

TEST_F(QuillfsCorrelatorTest, WhatCannotBeReadBeginsNoQuietPeriod)
{
    Observe(MakeKel("kel.quillfs.ramdisk.full", "%s", "/tmp/bundle.tgz"));
    ObserveRamdiskFull(none);
    ObserveInodeTableFull(none, "snmpd.pid");
    EXPECT_THAT(Events(), IsEmpty());
    ObserveRamdiskFull("/tmp/bundle.tgz");
    EXPECT_THAT(Events(), SizeIs(1));
}

TEST_F(QuillfsCorrelatorTest, Kept_TextsHaveTwoBlanks)
{
    for (const std::size_t row : {0U, 1U})
        EXPECT_THAT(std::string(keldQuillfsDomain.observations[row].posts[0]->Text()),
                    HasSubstr("is full.  As a result, the file %s could not be"));
}

class VfatCorrelatorTest : public LocalFileSystemTest {
protected:
    VfatCorrelatorTest() : LocalFileSystemTest(keldVfatDomain)
    {
        EXPECT_STREQ("/scratch", keldVfatScratchLink);
        keldVfatScratchLink = mLink.c_str();
    }

    void LinkScratch(const std::string &target)
    {
        std::filesystem::remove(mLink);
        std::filesystem::create_symlink(target, mLink);
    }
    void MakeScratchADirectory() { std::filesystem::create_directory(mLink); }

    void ObserveFull(const char *uuid)
    {
        Observe(MakeKel("kel.vfat.filesystem.full", "%s %s", "vfat1", uuid));
    }

private:
    const std::string mLink = runDir.Path("scratch");
};

TEST_F(VfatCorrelatorTest, ScratchIsTheFileSystemThatTheLinkLeadsTo)
{
    LinkScratch("/dsfs/volumes/5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("001b21c00fff");
    EXPECT_THAT(Events(),
                ElementsAre(HasSubstr("nox.problem.vfat.filesystem.full.scratch(vfat1, 5f3a1b2c-"),
                            "nox.problem.vfat.filesystem.full.other(vfat1, 001b21c00fff)"));

    LinkScratch("001b21c00fff"); // moved, and without a directory
    clock.Advance(301);
    ObserveFull("5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("001b21c00fff");
    EXPECT_THAT(Events(), ElementsAre(HasSubstr("full.other(vfat1, 5f3a1b2c-"),
                                      "nox.problem.vfat.filesystem.full.scratch(vfat1, 001b21c00fff)"));
}

TEST_F(VfatCorrelatorTest, PlainScratchDirectoryStandsForItself)
{
    MakeScratchADirectory();
    ObserveFull("5f3a1b2c-0004d2e7-00ab-001b21c00fff");
    ObserveFull("scratch");
    EXPECT_THAT(Events(), ElementsAre(HasSubstr("full.other("), HasSubstr("full.scratch(vfat1, scratch)")));
}

TEST_F(VfatCorrelatorTest, EachFileSystemIsQuietFor300Seconds)
{
    ExpectQuietPeriod([this] { ObserveFull("5f3a1b2c-0004d2e7-00ab-001b21c00fff"); });
    ExpectRenewal([this] { ObserveFull("001b21c00fff"); });
}

TEST_F(VfatCorrelatorTest, OtherObservationsAreIgnored)
{
    Observe(MakeKel("kel.vfat.filesystem.corrupt", "%s %s", "vfat1", "5f3a1b2c"));
    Observe(MakeKel("kel.vfat.filesystem.full", "%s", "vfat1"));
    EXPECT_THAT(Events(), IsEmpty());
    EXPECT_THAT(LogLines(), IsEmpty());
}

} // namespace
