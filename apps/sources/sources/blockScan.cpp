#include "blockScan.h"

#include "blockTags.h"
#include "mounts.h"
#include "row.h"
#include "textFile.h"

#include <algorithm>
#include <filesystem>
#include <set>

namespace fs = std::filesystem;

namespace {

std::vector<fs::path> Folders(const fs::path &above)
{
    std::vector<fs::path> folders;
    std::error_code error;
    for (fs::directory_iterator entry(above, error), end; !error && entry != end; entry.increment(error))
        folders.push_back(entry->path());
    std::ranges::sort(folders);
    return folders;
}

// Blanks and the like, of which such names have many, become one "_".
std::string Identifier(const std::string &text)
{
    std::string name;
    for (const char c : text) {
        const bool isPlain = c > ' ' && c < 0x7F && c != '/';
        if (isPlain)
            name += c;
        else if (!name.empty() && name.back() != '_')
            name += '_';
    }
    while (name.ends_with('_'))
        name.pop_back();
    return name == "." || name == ".." ? "" : name.substr(0, kTextBytesMax);
}

// "2:0:0:1": how the kernel calls a SCSI disk's place.
bool IsScsiAddress(const std::string &text)
{
    return std::ranges::count(text, ':') == 3 && text.find_first_not_of("0123456789:") == std::string::npos;
}

} // namespace

std::vector<Disk> ReadDisks(const std::string &root)
{
    std::vector<Disk> disks;
    for (const fs::path &folder : Folders(root + "/sys/block")) {
        const std::string name = folder.filename();
        const bool isLoop = name.starts_with("loop");
        std::error_code error;
        if (!isLoop && !fs::exists(folder / "device", error)) continue;
        Disk disk{name,
                  name,
                  ReadTextFile(folder / "dev"),
                  ReadNumberFile(folder / "size").value_or(0),
                  ReadTextFile(folder / "ro") == "1",
                  {}};
        if (disk.blocks == 0) continue;
        const std::string place = fs::read_symlink(folder / "device", error).filename();
        if (!error && IsScsiAddress(place)) disk.path = place;
        std::string device = Identifier(ReadTextFile(folder / "device/wwid"));
        if (device.empty()) device = Identifier(ReadTextFile(folder / "wwid"));
        if (!device.empty()) disk.device = device;
        for (const fs::path &inside : Folders(folder))
            if (const auto number = ReadNumberFile(inside / "partition"); number && *number < 256)
                disk.partitions[static_cast<int>(*number)] = ReadTextFile(inside / "dev");
        if (disk.partitions.empty()) disk.partitions[0] = disk.number;
        disks.push_back(std::move(disk));
    }
    return disks;
}

std::vector<MountedFileSystem> ReadFileSystems(const std::string &root,
                                               const std::vector<MountedFileSystem> &known)
{
    std::vector<MountedFileSystem> found;
    for (const Mount &mount : ReadMounts(ReadTextFile(root + "/proc/self/mountinfo"))) {
        const auto before = std::ranges::find(known, mount.device, &MountedFileSystem::number);
        if (before != known.end()) {
            found.push_back(*before);
            continue;
        }
        std::error_code error;
        const fs::path node = fs::read_symlink(root + "/sys/dev/block/" + mount.device, error).filename();
        if (error) continue; // no block device
        const BlockTags tags = ReadBlockTags(root + "/dev/" + node.string());
        const std::string &name = tags.label.empty() ? tags.uuid : tags.label;
        if (!name.empty()) found.push_back({mount.device, name, tags.uuid});
    }
    return found;
}
