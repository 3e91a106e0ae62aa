// The disks and the mounted file systems of a host, as sysfs and the list of mounts have them.
#ifndef SOURCES_BLOCKSCAN_H
#define SOURCES_BLOCKSCAN_H

#include <cstdint>
#include <map>
#include <string>
#include <vector>

// One block device that leads to a disk. Several of them lead to the same one when it has several paths.
struct Disk {
    std::string path; // "2:0:0:1" of a SCSI disk; the kernel's name of any other
    std::string
        device; // what the disk itself calls itself, "naa.60003ff4..."; without that, the kernel's name
    std::string number;       // "8:0"
    std::uint64_t blocks = 0; // of 512 bytes; never 0
    bool isReadOnly = false;
    std::map<int, std::string>
        partitions; // device number by the partition's; 0: the whole disk, when it has none
};

// Disks with a device behind them, and loop devices, in the order of their names; those without a medium
// are left out. root stands in front of /sys.
std::vector<Disk> ReadDisks(const std::string &root);

// A mounted file system with a label or a UUID.
struct MountedFileSystem {
    std::string number; // of the block device that it is on
    std::string name;   // its label; without one, its UUID
    std::string uuid;
};

// known holds what was read before, so that no file system is read twice.
std::vector<MountedFileSystem> ReadFileSystems(const std::string &root,
                                               const std::vector<MountedFileSystem> &known);

#endif
