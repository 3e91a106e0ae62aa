// The file systems that the host has mounted.
#ifndef KNXCTL_STORAGEINFO_H
#define KNXCTL_STORAGEINFO_H

#include <memory>
#include <string>
#include <vector>

namespace KnxCtl::Storage {

// A mounted file system, by the two names that appear under "/dsfs/volumes/". Both throw
// NodeAdm::Lib::NodeAdmException when the file system cannot report.
class FileSystem {
public:
    virtual ~FileSystem() = default;
    virtual std::string GetUuid() const = 0;
    virtual std::string GetName() const = 0;
};

// Any thread; asks the host at every call.
class StorageInfoImpl {
public:
    // Never null inside; empty when nothing is mounted. Throws NodeAdm::Lib::NodeAdmException.
    std::vector<std::unique_ptr<FileSystem>> GetFileSystems() const;
};

} // namespace KnxCtl::Storage

#endif
