// Disks: a real loop device, and paths of SCSI disks in a tree like sysfs.
#include "blockModel.h"
#include "sourcesTest.h"
#include "waitFor.h"

#include <sched.h>
#include <sys/mount.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class BlockTest : public testing::Test {
protected:
    void Disk(const std::string &name, const std::string &address, const char *blocks = "4096",
              const char *readOnly = "0")
    {
        const std::string folder = "/sys/block/" + name;
        bench.Write("/sys/devices/" + address + "/wwid", "naa.60003ff44dc75adc");
        bench.Write(folder + "/dev", "8:" + std::string(name == "sda" ? "0" : "16"));
        bench.Write(folder + "/size", blocks);
        bench.Write(folder + "/ro", readOnly);
        bench.Write(folder + "/" + name + "1/partition", "1");
        bench.Write(folder + "/" + name + "1/dev", "8:1");
        std::error_code isThere;
        std::filesystem::create_symlink("../../devices/" + address, bench.options.root + folder + "/device",
                                        isThere);
    }
    void NoDisk(const std::string &name)
    {
        std::filesystem::remove_all(bench.options.root + "/sys/block/" + name);
    }
    Texts Look()
    {
        model.Set(ReadDisks(bench.options.root), {{"8:1", "ds-gold", "4b3f-12aa"}});
        return bench.told.Take();
    }
    std::string Redundancy()
    {
        return bench.host.HostText("storage/devices/naa.60003ff44dc75adc/pathRedundancy").value_or("none");
    }

    SourceBench bench;
    BlockModel model{bench.told.Taker(), bench.inventory};
};

TEST_F(BlockTest, APathOfTwoIsLostAndFoundAndItsDiskIsLostWithTheLast)
{
    Disk("sda", "2:0:0:1");
    Disk("sdb", "3:0:0:1");
    EXPECT_THAT(Look(), IsEmpty());
    EXPECT_EQ("3", Redundancy());
    EXPECT_EQ("naa.60003ff44dc75adc", bench.host.HostText("storage/paths/3:0:0:1"));
    EXPECT_EQ("ds-gold", bench.host.HostText("storage/devices/naa.60003ff44dc75adc/partitions/1"));
    EXPECT_EQ("4b3f-12aa", bench.host.HostText("storage/filesystems/8:1/uuid"));

    NoDisk("sdb");
    EXPECT_THAT(Look(), ElementsAre("kel.scsi.scsipath.pathstate.dead(3:0:0:1, on)",
                                    "kel.scsi.scsipath.remove(3:0:0:1)"));
    EXPECT_EQ("2", Redundancy());
    Disk("sdb", "3:0:0:1");
    EXPECT_THAT(Look(), ElementsAre("kel.scsi.scsipath.add(3:0:0:1)",
                                    "kel.scsi.scsipath.pathstate.on(3:0:0:1, dead)"));
    NoDisk("sda");
    NoDisk("sdb");
    EXPECT_THAT(Look(),
                ElementsAre("kel.scsi.scsipath.remove(2:0:0:1)", "kel.scsi.scsipath.remove(3:0:0:1)",
                            "kel.scsi.device.state.permanentloss(naa.60003ff44dc75adc)"));
    EXPECT_EQ("none", Redundancy());
    Disk("sda", "2:0:0:1");
    EXPECT_THAT(Look(),
                ElementsAre("kel.scsi.scsipath.add(2:0:0:1)",
                            "kel.scsi.device.state.permanentloss.pluggedback(naa.60003ff44dc75adc)"));
}

TEST_F(BlockTest, PathsThatDeviceMapperCallsFailedAreAllDownInTheEnd)
{
    Disk("sda", "2:0:0:1");
    Disk("sdb", "3:0:0:1");
    Look();
    const auto set = [&](const char *number, bool works) {
        model.SetPath(number, works);
        return bench.told.Take();
    };
    EXPECT_THAT(set("8:0", false), ElementsAre("kel.scsi.scsipath.pathstate.dead(2:0:0:1, on)"));
    EXPECT_THAT(set("8:0", false), IsEmpty());
    EXPECT_THAT(set("9:9", false), IsEmpty()); // of no path
    EXPECT_THAT(set("8:16", false), ElementsAre("kel.scsi.scsipath.pathstate.dead(3:0:0:1, on)",
                                                "kel.storage.apd.start(naa.60003ff44dc75adc)"));
    EXPECT_EQ("1", Redundancy());
    EXPECT_THAT(Look(), IsEmpty());
    EXPECT_THAT(set("8:16", true), ElementsAre("kel.scsi.scsipath.pathstate.on(3:0:0:1, dead)",
                                               "kel.storage.apd.exit(naa.60003ff44dc75adc)"));
}

TEST_F(BlockTest, ADiskThatGrowsOrCannotBeWrittenAnyMoreIsTold)
{
    Disk("sda", "2:0:0:1", "4096");
    Look();
    Disk("sda", "2:0:0:1", "8192", "1");
    EXPECT_THAT(Look(), ElementsAre("kel.scsi.device.capacity.changed(naa.60003ff44dc75adc, 4096, 8192)",
                                    "kel.scsi.device.writeprotected(naa.60003ff44dc75adc)"));
    EXPECT_THAT(Look(), IsEmpty());
}

std::string OutputOf(const std::string &command)
{
    FILE *pipe = popen((command + " 2>/dev/null").c_str(), "re");
    std::array<char, 256> text{};
    const bool read = pipe != nullptr && std::fgets(text.data(), text.size(), pipe) != nullptr;
    const bool good = pipe != nullptr && pclose(pipe) == 0;
    std::string line = read && good ? text.data() : "";
    return line.substr(0, line.find('\n'));
}

// With this host's own /sys and uevents.
TEST(BlockDeviceTest, AFileSystemOnALoopDeviceComesAndGoes)
{
    SourceBench bench;
    const std::string image = bench.host.Path("image"), point = bench.host.Path("mounted");
    std::filesystem::create_directory(point);
    std::ofstream(image).put('\0');
    std::filesystem::resize_file(image, 4 * 1024 * 1024);
    const bool isAlone = unshare(CLONE_NEWNS) == 0 && mount("", "/", "", MS_REC | MS_PRIVATE, "") == 0;
    const std::string made = OutputOf("/sbin/mkfs.ext4 -q -L ds-loop " + image + " && echo made");
    bench.options.root = "";
    bench.Start(kBlockSource);
    const std::string node = OutputOf("/sbin/losetup --find --show " + image);
    if (!isAlone || made.empty() || node.empty()) GTEST_SKIP() << "no loop device here";
    const std::string name = node.substr(5);

    const auto turnUntil = [&](const std::function<bool()> &done) {
        return WaitUntil(
            [&] {
                sd_event_run(bench.loop.Get(), 0);
                return done();
            },
            std::chrono::seconds(20));
    };
    const auto turnUntilTold = [&](const std::string &what) {
        return turnUntil([&] {
            const Texts texts = bench.told.Take();
            return std::ranges::count(texts, what) == 1;
        });
    };
    EXPECT_TRUE(turnUntilTold("kel.scsi.scsipath.add(" + name + ")"));
    if (mount(node.c_str(), point.c_str(), "ext4", 0, "") == 0) {
        const std::string partition = "storage/devices/" + name + "/partitions/0";
        EXPECT_TRUE(turnUntil([&] { return bench.host.HostText(partition) == "ds-loop"; }));
        umount(point.c_str());
        EXPECT_TRUE(turnUntil([&] { return bench.host.HostText(partition) == ""; }));
    }
    EXPECT_EQ("gone", OutputOf("/sbin/losetup -d " + node + " && echo gone"));
    EXPECT_TRUE(turnUntilTold("kel.scsi.device.state.permanentloss(" + name + ")"));
}

} // namespace
