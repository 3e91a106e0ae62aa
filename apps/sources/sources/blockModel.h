// The host's disks as the daemon is told of them: the paths to each, whether any is left, and what becomes
// of the disk itself.
//
// Knows nothing of how disks are found. It compares what it is given with what has been told, keeps the
// inventory, and then tells the difference: the daemon looks into the inventory when it hears of a path.
#ifndef SOURCES_BLOCKMODEL_H
#define SOURCES_BLOCKMODEL_H

#include "blockScan.h"
#include "inventory.h"
#include "row.h"

#include <map>
#include <set>
#include <span>
#include <string>
#include <vector>

class BlockModel {
public:
    BlockModel(Emit emit, Inventory &inventory) : mEmit(std::move(emit)), mInventory(inventory) {}
    static std::span<const Row> Rows();

    // What there is now. The first call tells nothing.
    void Set(const std::vector<Disk> &disks, const std::vector<MountedFileSystem> &fileSystems);

    // A path that is still there does not work any more, or works again: number is its block device's.
    void SetPath(const std::string &number, bool works);

private:
    struct Path {
        std::string device;
        std::string number;
        bool isThere = false;
        bool works = true;
        bool IsAlive() const { return isThere && works; }
        bool operator==(const Path &) const = default;
    };
    struct Device {
        std::uint64_t blocks = 0;
        bool isReadOnly = false;
        std::map<int, std::string> partitions;
    };
    using Paths = std::map<std::string, Path>;
    using Devices = std::map<std::string, Device>;

    std::size_t CountAlive(const std::string &device) const;
    void ForgetPathsOfLostDevices();
    void KeepInventory();
    void TellPaths(const Paths &before);
    void TellDevices(const Devices &before);
    void TellAllPathsDown();

    const Emit mEmit;
    Inventory &mInventory;
    bool mIsFirst = true;
    Paths mPaths;
    Devices mDevices;                 // those that are there
    std::set<std::string> mLost;      // devices that were told to be gone
    std::set<std::string> mPathsDown; // devices that were told to have no path that works
    std::vector<MountedFileSystem> mFileSystems;
};

#endif
