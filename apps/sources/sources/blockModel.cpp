#include "blockModel.h"

#include <algorithm>
#include <utility>

namespace {

// clang-format off
enum { kAdd, kRemove, kDead, kOn, kLoss, kPluggedBack, kAllDown, kNotAllDown, kCapacity, kWriteProtected };
constexpr Row kRows[] = {
    {"kel.scsi.scsipath.add",            "%s",    "a block device with a medium appears"},
    {"kel.scsi.scsipath.remove",         "%s",    "it disappears, or its medium does"},
    {"kel.scsi.scsipath.pathstate.dead", "%s %s", "device-mapper calls a path failed, or one of several paths disappears"},
    {"kel.scsi.scsipath.pathstate.on",   "%s %s", "device-mapper calls it reinstated, or it is back"},
    {"kel.scsi.device.state.permanentloss",             "%s", "the last block device that led to a disk is gone"},
    {"kel.scsi.device.state.permanentloss.pluggedback", "%s", "such a disk is back"},
    {"kel.storage.apd.start", "%s", "paths to a disk are there, and none of them works"},
    {"kel.storage.apd.exit",  "%s", "one of them works again"},
    {"kel.scsi.device.capacity.changed", "%s %lx %lx", "a disk has another number of blocks of 512 bytes"},
    {"kel.scsi.device.writeprotected",   "%s",         "a disk that could be written is read-only"},
};
// clang-format on

constexpr std::size_t kLostMax = 4096; // disks whose return would be told

// How many ways lead to a device, in the inventory's words.
const char *Redundancy(std::size_t paths) { return paths == 0 ? "1" : paths == 1 ? "2" : "3"; }

} // namespace

std::span<const Row> BlockModel::Rows() { return kRows; }

void BlockModel::Set(const std::vector<Disk> &disks, const std::vector<MountedFileSystem> &fileSystems)
{
    const Paths pathsBefore = mPaths;
    const Devices devicesBefore = std::exchange(mDevices, {});
    for (auto &[name, path] : mPaths)
        path.isThere = false;
    for (const Disk &disk : disks) {
        Path &path = mPaths[disk.path];
        if (path.number != disk.number || path.device != disk.device) path = {disk.device, disk.number};
        path.isThere = true;
        mDevices[disk.device] = {disk.blocks, disk.isReadOnly, disk.partitions};
    }
    for (auto &[name, path] : mPaths)
        path.works = path.works || !path.isThere; // whatever comes back is taken to work
    mFileSystems = fileSystems;
    KeepInventory();
    if (!std::exchange(mIsFirst, false)) {
        TellPaths(pathsBefore);
        TellDevices(devicesBefore);
        TellAllPathsDown();
    }
    ForgetPathsOfLostDevices();
}

void BlockModel::SetPath(const std::string &number, bool works)
{
    const Paths before = mPaths;
    for (auto &[name, path] : mPaths)
        if (path.isThere && path.number == number) path.works = works;
    if (mPaths == before) return;
    KeepInventory();
    TellPaths(before);
    TellAllPathsDown();
}

std::size_t BlockModel::CountAlive(const std::string &device) const
{
    return static_cast<std::size_t>(std::ranges::count_if(mPaths, [&](const auto &entry) {
        return entry.second.device == device && entry.second.IsAlive();
    }));
}

// A path that is gone stays known while other paths lead to its device: its return is the end of a problem.
void BlockModel::ForgetPathsOfLostDevices()
{
    std::erase_if(mPaths, [&](const auto &entry) { return !mDevices.contains(entry.second.device); });
}

void BlockModel::KeepInventory()
{
    Inventory::Entries entries;
    for (const auto &[name, path] : mPaths)
        entries[{"storage", "paths", name}] = path.device;
    for (const auto &[name, device] : mDevices) {
        entries[{"storage", "devices", name, "pathRedundancy"}] = Redundancy(CountAlive(name));
        for (const auto &[number, block] : device.partitions) {
            const auto mounted = std::ranges::find(mFileSystems, block, &MountedFileSystem::number);
            entries[{"storage", "devices", name, "partitions", std::to_string(number)}] =
                mounted == mFileSystems.end() ? "" : mounted->name;
        }
    }
    for (const MountedFileSystem &fileSystem : mFileSystems) {
        entries[{"storage", "filesystems", fileSystem.number, "name"}] = fileSystem.name;
        entries[{"storage", "filesystems", fileSystem.number, "uuid"}] = fileSystem.uuid;
    }
    mInventory.Set({"storage"}, entries);
}

void BlockModel::TellPaths(const Paths &before)
{
    for (const auto &[name, path] : mPaths) {
        const auto known = before.find(name);
        const Path was = known == before.end() ? Path{} : known->second;
        if (path.isThere && !was.isThere) mEmit(kRows[kAdd], {name});
        if (known != before.end() && path.IsAlive() && !was.IsAlive())
            mEmit(kRows[kOn], {name, std::string("dead")});
        if (was.IsAlive() && !path.IsAlive() && mDevices.contains(path.device))
            mEmit(kRows[kDead], {name, std::string("on")});
        if (was.isThere && !path.isThere) mEmit(kRows[kRemove], {name});
    }
}

void BlockModel::TellDevices(const Devices &before)
{
    for (const auto &[name, was] : before) {
        const auto now = mDevices.find(name);
        if (now == mDevices.end()) {
            if (mLost.size() >= kLostMax) mLost.clear();
            mLost.insert(name);
            mEmit(kRows[kLoss], {name});
            continue;
        }
        if (now->second.blocks != was.blocks)
            mEmit(kRows[kCapacity], {name, was.blocks, now->second.blocks});
        if (now->second.isReadOnly && !was.isReadOnly) mEmit(kRows[kWriteProtected], {name});
    }
    for (const auto &[name, device] : mDevices)
        if (mLost.erase(name) != 0) mEmit(kRows[kPluggedBack], {name});
}

void BlockModel::TellAllPathsDown()
{
    std::erase_if(mPathsDown, [&](const std::string &name) { return !mDevices.contains(name); });
    for (const auto &[name, device] : mDevices) {
        if (CountAlive(name) == 0) {
            if (mPathsDown.insert(name).second) mEmit(kRows[kAllDown], {name});
        } else if (mPathsDown.erase(name) != 0) {
            mEmit(kRows[kNotAllDown], {name});
        }
    }
}
