// Full file systems in memory, and full vfat ones.
//
// No kernel tells when a file system fills up: all of them are looked at once in a period, and at the
// start. Each is told once when it is found full, and again only after it was found with room.

#include "source.h"

#include "blockTags.h"
#include "mounts.h"
#include "textFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <kltlibs/uniquefd.h>
#include <set>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <utility>

namespace {

enum { kRamdiskFull, kFileTableFull, kVfatFull };
constexpr Row kRows[] = {
    {"kel.quillfs.ramdisk.full", "%s %s",
     "a tmpfs has no block left; file and ramdisk are its mount point"},
    {"kel.quillfs.ramdisk.inodetable.full", "%s %s %s %s",
     "a tmpfs has no inode left; which file and which application failed is not known, and shown as *"},
    {"kel.vfat.filesystem.full", "%s %s", "a vfat file system has no block left; its mount point and UUID"},
};

// False for one that is gone meanwhile, or that another file system hides, which may be full by its nature.
bool ReadRoom(const std::string &point, const std::string &device, struct statvfs *room)
{
    const UniqueFd fd(open(point.c_str(), O_PATH | O_CLOEXEC));
    struct stat top {};
    return fd && fstat(fd.Get(), &top) == 0 &&
           fmt::format("{}:{}", major(top.st_dev), minor(top.st_dev)) == device &&
           fstatvfs(fd.Get(), room) == 0;
}

class FileSystemSource : public Source {
public:
    explicit FileSystemSource(const Host &host) : mHost(host)
    {
        Look();
        host.loop.EachPeriod([this] { Look(); });
    }

private:
    void Look();
    static std::string UuidOf(const std::string &node);

    const Host &mHost;
    std::set<std::string> mFull; // those that are mounted now
};

void FileSystemSource::Look()
{
    const std::string &root = mHost.options.root;
    std::set<std::string> full;
    const auto isNews = [&](bool isFull, const std::string &what) {
        return isFull && full.insert(what).second && !mFull.contains(what);
    };
    for (const Mount &mount : ReadMounts(ReadTextFile(root + "/proc/self/mountinfo"))) {
        const bool isTmpfs = mount.type == "tmpfs";
        struct statvfs room {};
        if (mount.readOnly || (!isTmpfs && mount.type != "vfat")) continue;
        if (!ReadRoom(root + mount.point, mount.device, &room)) continue;
        const bool noBlock = room.f_blocks != 0 && room.f_bavail == 0; // 0 blocks: no limit
        const bool noInode = isTmpfs && room.f_files != 0 && room.f_favail == 0;
        if (isNews(noBlock, "blocks " + mount.device)) {
            if (isTmpfs)
                mHost.emit(kRows[kRamdiskFull], {mount.point, mount.point});
            else
                mHost.emit(kRows[kVfatFull], {mount.point, UuidOf(root + mount.source)});
        }
        if (isNews(noInode, "inodes " + mount.device))
            mHost.emit(kRows[kFileTableFull], {mount.point, "*", "*", mount.point});
    }
    mFull = std::move(full);
}

// The node's own name stands for a UUID that cannot be read.
std::string FileSystemSource::UuidOf(const std::string &node)
{
    const std::string uuid = ReadBlockTags(node).uuid;
    return uuid.empty() ? node : uuid;
}

} // namespace

const SourceKind kFileSystemSource{
    "filesystem",
    "to see the host's mount points",
    "tmpfs and vfat file systems, once in a period",
    kRows,
    [](const Host &host) -> std::unique_ptr<Source> { return std::make_unique<FileSystemSource>(host); },
};
