#include "inventoryHost.h"

#include "inventoryText.h"
#include "knxctl/hostFactory.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace NodeAdm {

namespace {

using HostInventory::Path;
using KnxCtl::Fail;
using KnxCtl::ListOrFail;
using KnxCtl::ReadOrFail;

Path DevicePath(const std::string &device, const char *entry)
{
    return {"storage", "devices", device, entry};
}

template <class Kind> class InventoryLun : public Kind {
public:
    explicit InventoryLun(std::string name) : mName(std::move(name)) {}

    std::string GetName() const override { return mName; }

    std::uint32_t GetPathRedundancy() const override
    {
        std::uint64_t redundancy = 0;
        const int error = HostInventory::ReadUnsigned(DevicePath(mName, "pathRedundancy"), 3, &redundancy);
        if (error != 0) Fail("Path redundancy of device " + mName, error);
        return static_cast<std::uint32_t>(redundancy);
    }

protected:
    const std::string mName;
};

class InventoryDiskLun : public InventoryLun<Storage::DiskLun> {
public:
    using InventoryLun::InventoryLun;

    // Other names than numbers are passed over: a file that somebody is about to rename.
    std::vector<std::int32_t> GetPartitions() const override
    {
        std::vector<std::int32_t> partitions;
        for (const std::string &name :
             ListOrFail(DevicePath(mName, "partitions"), "Partitions of device " + mName)) {
            std::int64_t number = 0;
            if (HostInventory::ParseInteger(name, 0, std::numeric_limits<std::int32_t>::max(), &number) ==
                    0 &&
                std::to_string(number) == name)
                partitions.push_back(static_cast<std::int32_t>(number));
        }
        std::sort(partitions.begin(), partitions.end());
        return partitions;
    }
};

class InventoryStorageInfo : public Storage::StorageInfo {
public:
    std::string GetDeviceNameOfPath(const std::string &path) const override
    {
        return ReadOrFail({"storage", "paths", path}, "Device of path " + path);
    }

    std::unique_ptr<Storage::Lun> GetLun(const std::string &device) const override
    {
        if (HostInventory::IsDirectory(DevicePath(device, "partitions")))
            return std::make_unique<InventoryDiskLun>(device);
        if (HostInventory::IsDirectory({"storage", "devices", device}))
            return std::make_unique<InventoryLun<Storage::Lun>>(device);
        Fail("Device " + device, ENOENT);
    }

    std::string GetDatastoreOn(const std::string &deviceAndPartition) const override
    {
        const std::size_t colon = std::min(deviceAndPartition.rfind(':'), deviceAndPartition.size());
        Path path = DevicePath(deviceAndPartition.substr(0, colon), "partitions");
        path.push_back(deviceAndPartition.substr(std::min(colon + 1, deviceAndPartition.size())));
        int error = 0;
        const std::optional<std::string> name = HostInventory::ReadText(path, &error);
        if (!name && error != ENOENT) Fail("Datastore on " + deviceAndPartition, error);
        return name.value_or("");
    }
};

class InventoryHost : public Host {
public:
    std::unique_ptr<Storage::StorageInfo> GetStorageInfo() const override
    {
        return std::make_unique<InventoryStorageInfo>();
    }
};

} // namespace

std::unique_ptr<Host> MakeInventoryHost() { return std::make_unique<InventoryHost>(); }

} // namespace NodeAdm
