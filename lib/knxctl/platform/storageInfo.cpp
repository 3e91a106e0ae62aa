#include "knxctl/storageInfo.h"

#include "inventoryText.h"

#include <utility>

namespace KnxCtl::Storage {

namespace {

class InventoryFileSystem : public FileSystem {
public:
    explicit InventoryFileSystem(std::string entry) : mEntry(std::move(entry)) {}

    std::string GetUuid() const override { return Read("uuid"); }
    std::string GetName() const override { return Read("name"); }

private:
    std::string Read(const char *file) const
    {
        return ReadOrFail({"storage", "filesystems", mEntry, file}, "File system " + mEntry + ", " + file);
    }

    const std::string mEntry;
};

} // namespace

std::vector<std::unique_ptr<FileSystem>> StorageInfoImpl::GetFileSystems() const
{
    std::vector<std::unique_ptr<FileSystem>> fileSystems;
    for (std::string &entry : ListOrFail({"storage", "filesystems"}, "File systems"))
        fileSystems.push_back(std::make_unique<InventoryFileSystem>(std::move(entry)));
    return fileSystems;
}

} // namespace KnxCtl::Storage
