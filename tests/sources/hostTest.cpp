// Sources that look at the host once in a period: full file systems, the clock, memory modules.
#include "clockWatch.h"
#include "sourcesTest.h"
#include "waitFor.h"

#include <cstring>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

TEST(EventLoopTest, ALookThatFailsKeepsNoOtherFromItsPeriods)
{
    EventLoop loop(std::chrono::seconds(0));
    int looks = 0;
    loop.EachPeriod([] { throw std::runtime_error("what it looks at went away"); });
    loop.EachPeriod([&] { ++looks; });
    EXPECT_TRUE(WaitUntil([&] { return sd_event_run(loop.Get(), 0) >= 0 && looks >= 2; }));
}

// A real tmpfs, which the program finds full at its start.
TEST_F(SourcesTest, AFullTmpfsIsToldAtOnceItsBlocksAndItsInodes)
{
    const std::string ram = host.Path("ram"), files = host.Path("files");
    const bool isAlone = unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0;
    for (const auto &[point, size] : {std::pair(ram, "size=64k"), std::pair(files, "nr_inodes=3")}) {
        std::filesystem::create_directory(point);
        if (!isAlone || mount("tmpfs", point.c_str(), "tmpfs", 0, size) != 0)
            GTEST_SKIP() << "no mount namespace here: " << std::strerror(errno);
    }
    std::ofstream(ram + "/full") << std::string(128 * 1024, 'x');
    std::ofstream(files + "/1");
    std::ofstream(files + "/2");
    StartDaemon();
    StartSources({"--without", "link,block,clock,memory,service,journal"});
    Texts told;
    while (told.size() < 2) {
        const std::string line = Next();
        ASSERT_NE("(nothing)", line);
        if (line.find(host.Path()) != std::string::npos) told.push_back(line);
    }
    EXPECT_THAT(told,
                testing::UnorderedElementsAre("kel.quillfs.ramdisk.full,,\"" + ram + "\",\"" + ram + "\"",
                                              "kel.quillfs.ramdisk.inodetable.full,,\"" + files +
                                                  "\",\"*\",\"*\",\"" + files + "\""));
    umount(ram.c_str());
    umount(files.c_str());
}

// A kernel without vfat is told that a tmpfs is one.
TEST(FileSystemTest, AVfatFileSystemIsToldOncePerFilling)
{
    SourceBench bench;
    const std::string point = bench.options.root + "/boot efi";
    std::filesystem::create_directories(point);
    if (unshare(CLONE_NEWNS) != 0 || mount("", "/", "", MS_REC | MS_PRIVATE, "") != 0 ||
        mount("tmpfs", point.c_str(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "no mount namespace here: " << std::strerror(errno);
    struct stat top {};
    ASSERT_EQ(0, stat(point.c_str(), &top));
    const std::string line = "36 25 0:" + std::to_string(minor(top.st_dev)) +
                             " / /boot\\040efi rw - vfat /dev/sda1 rw,fmask=0077\n";
    const auto show = [&](const std::string &mounts) { bench.Write("/proc/self/mountinfo", mounts); };
    show(line + "37 25 8:2 / /ro rw - vfat /dev/sda2 ro\nnot such a line");
    bench.Start(kFileSystemSource);
    EXPECT_THAT(bench.told.Take(), IsEmpty());
    ASSERT_EQ(0, mount("tmpfs", point.c_str(), "tmpfs", 0, "size=4k"));
    std::ofstream(point + "/full") << "what hides it is full";
    EXPECT_THAT(bench.AfterAPeriod(), IsEmpty());
    umount(point.c_str());
    for (const char *time : {"first", "second"}) {
        std::ofstream(point + "/full") << std::string(128 * 1024, 'x');
        EXPECT_THAT(bench.AfterAPeriod(),
                    ElementsAre("kel.vfat.filesystem.full(/boot efi, " + bench.options.root + "/dev/sda1)"))
            << time;
        EXPECT_THAT(bench.AfterAPeriod(), IsEmpty()) << time;
        show(""); // as full as it is, it goes; the next one has its number
        EXPECT_THAT(bench.AfterAPeriod(), IsEmpty()) << time;
        show(line);
        EXPECT_THAT(bench.AfterAPeriod(), testing::SizeIs(1)) << time;
        std::filesystem::remove(point + "/full");
        EXPECT_THAT(bench.AfterAPeriod(), IsEmpty()) << time;
    }
    umount(point.c_str());
}

TEST(ClockTest, StepsAndLossesAreToldApart)
{
    Told told;
    ClockWatch clock(told.Taker());
    ClockLook look{.wallNanoseconds = 1'772'366'400'000'000'000, .synchronised = true};
    clock.Take(look, false);
    EXPECT_THAT(told.Take(), IsEmpty());

    look.wallNanoseconds += 90'000'000'000; // a minute and a half passes, one minute of it by a step
    look.steadyNanoseconds += 30'000'000'000;
    clock.Take(look, true);
    EXPECT_THAT(told.Take(), ElementsAre(HasSubstr("was set, by +60.000 seconds")));

    look.wallNanoseconds += 3'600'000'000'000; // it slept for an hour
    look.steadyNanoseconds += 3'599'999'999'000;
    clock.Take(look, true);
    EXPECT_THAT(told.Take(), IsEmpty());

    look.wallNanoseconds += 5;
    look.synchronised = false;
    clock.Take(look, true);
    EXPECT_THAT(told.Take(), ElementsAre("kel.clock.correction.step.unsync(1772370090, 5)"));

    for (const auto &[ranOut, lost] : {std::pair(false, "unsync"), std::pair(true, "lostsync")}) {
        look.synchronised = true;
        clock.Take(look, false);
        clock.Take(look, false);
        EXPECT_THAT(told.Take(), ElementsAre("kel.clock.correction.adjtime.sync()"));
        look.synchronised = false;
        look.errorRanOut = ranOut;
        clock.Take(look, false);
        EXPECT_THAT(told.Take(), ElementsAre(std::string("kel.clock.correction.adjtime.") + lost + "()"));
    }
}

TEST(MemoryTest, AModulesErrorsAreToldAsTheyAreCountedNotThoseOfOld)
{
    SourceBench bench;
    EXPECT_THROW(bench.Start(kMemorySource), CannotRun);
    const std::string module = "/sys/devices/system/edac/mc/mc0/dimm3/dimm_";
    bench.Write(module + "label", "DIMM_B2");
    bench.Write(module + "ce_count", "17");
    bench.Write(module + "ue_count", "0");
    bench.Start(kMemorySource);
    EXPECT_THAT(bench.AfterAPeriod(), IsEmpty());
    bench.Write(module + "ce_count", "20");
    bench.Write(module + "ue_count", "1");
    EXPECT_THAT(bench.AfterAPeriod(),
                ElementsAre("kel.external.warning(memory, man:keld-sources(8), memory module DIMM_B2 (mc0, "
                            "dimm3) had 3 correctable errors)",
                            "kel.external.error(memory, man:keld-sources(8), memory module DIMM_B2 (mc0, "
                            "dimm3) had 1 uncorrectable errors)"));
    bench.Write(module + "ce_count", "2"); // the driver was loaded anew
    EXPECT_THAT(bench.AfterAPeriod(), IsEmpty());
}

} // namespace
