// The host as its management library shows it: storage devices, and the paths to them.
//
// Any thread. Nothing is remembered between calls: every call asks the host, whose devices come and
// go meanwhile. What fails throws NodeAdm::Lib::NodeAdmException.
#ifndef KNXCTL_HOSTFACTORY_H
#define KNXCTL_HOSTFACTORY_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace NodeAdm::Storage {

// A storage device.
class Lun {
public:
    virtual ~Lun() = default;
    virtual std::string GetName() const = 0;

    // 0 unknown, 1 no path left, 2 a single one, 3 more than one.
    virtual std::uint32_t GetPathRedundancy() const = 0;
};

// A device that can carry partitions.
class DiskLun : public Lun {
public:
    // Ascending.
    virtual std::vector<std::int32_t> GetPartitions() const = 0;
};

class StorageInfo {
public:
    virtual ~StorageInfo() = default;

    // The name of the device at the other end of a path. Throws when the path is unknown.
    virtual std::string GetDeviceNameOfPath(const std::string &path) const = 0;

    // The device of that name, a DiskLun when it can carry partitions. Never null; throws when the
    // device is unknown.
    virtual std::unique_ptr<Lun> GetLun(const std::string &device) const = 0;

    // The name of the datastore under "/dsfs/volumes/" that is mounted on "<device>:<partition>"; empty
    // when there is none.
    virtual std::string GetDatastoreOn(const std::string &deviceAndPartition) const = 0;
};

} // namespace NodeAdm::Storage

namespace NodeAdm {

class Host {
public:
    virtual ~Host() = default;
    virtual std::unique_ptr<Storage::StorageInfo> GetStorageInfo() const = 0;
};

class HostFactory {
public:
    static std::unique_ptr<Host> GetHost();
};

} // namespace NodeAdm

#endif
