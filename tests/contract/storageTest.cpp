// What the host-management libraries promise about storage and virtual machines, by their public headers
// alone.

#include "runDir.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <knxctl/hostFactory.h>
#include <knxctl/nodeAdmException.h>
#include <knxctl/resourceInfo.h>

namespace {

using NodeAdm::Lib::NodeAdmException;
using NodeAdm::Storage::DiskLun;
using testing::ElementsAre;

class StorageContract : public testing::Test {
protected:
    RunDir runDir;
    const std::unique_ptr<NodeAdm::Host> host = NodeAdm::HostFactory::GetHost();
    const std::unique_ptr<NodeAdm::Storage::StorageInfo> storage = host->GetStorageInfo();
};

TEST_F(StorageContract, PathLeadsToItsDeviceWhoseRedundancyIsOneOfFourValues)
{
    EXPECT_THROW((void)storage->GetDeviceNameOfPath("hba1:C0:T0:L4"), NodeAdmException);
    runDir.Host("storage/paths/hba1:C0:T0:L4", "naa.1");
    EXPECT_EQ("naa.1", storage->GetDeviceNameOfPath("hba1:C0:T0:L4"));
    EXPECT_THROW((void)storage->GetLun("naa.1"), NodeAdmException);
    runDir.HostDirectory("storage/devices/naa.1");
    const auto lun = storage->GetLun("naa.1");
    EXPECT_EQ("naa.1", lun->GetName());
    EXPECT_EQ(nullptr, dynamic_cast<DiskLun *>(lun.get()));
    EXPECT_THROW((void)lun->GetPathRedundancy(), NodeAdmException);
    for (const std::uint32_t value : {0U, 1U, 2U, 3U}) {
        runDir.Host("storage/devices/naa.1/pathRedundancy", std::to_string(value));
        EXPECT_EQ(value, lun->GetPathRedundancy());
    }
    for (const char *text : {"4", "-1", "", "two"}) {
        runDir.Host("storage/devices/naa.1/pathRedundancy", text);
        EXPECT_THROW((void)lun->GetPathRedundancy(), NodeAdmException) << text;
    }
}

TEST_F(StorageContract, DiskLunHasItsPartitionsInAscendingOrder)
{
    runDir.Host("storage/devices/naa.1/partitions/10", "ds-ten");
    runDir.Host("storage/devices/naa.1/partitions/2", "ds-two");
    runDir.Host("storage/devices/naa.1/partitions/.3.tmp", "ds-three"); // half way to its name
    const auto lun = storage->GetLun("naa.1");
    const auto &disk = dynamic_cast<DiskLun &>(*lun);
    EXPECT_THAT(disk.GetPartitions(), ElementsAre(2, 10));
    EXPECT_EQ("ds-ten", storage->GetDatastoreOn("naa.1:10"));
    EXPECT_EQ("", storage->GetDatastoreOn("naa.1:3"));
    EXPECT_THROW((void)storage->GetDatastoreOn("naa.1"), NodeAdmException);
    runDir.RemoveHost("storage/devices/naa.1"); // meanwhile
    EXPECT_THROW((void)lun->GetPathRedundancy(), NodeAdmException);
    EXPECT_THAT(disk.GetPartitions(), ElementsAre());
}

TEST_F(StorageContract, VirtualMachineIsFoundByItsWorldAndTerminated)
{
    const KnxCtl::Resource::ResourceInfoImpl resources;
    EXPECT_THROW((void)resources.GetVirtualMachineByWorldId(4711), NodeAdmException);
    runDir.Host("vms/4711/name", "web01");
    const auto machine = resources.GetVirtualMachineByWorldId(4711);
    EXPECT_EQ("web01", machine->GetName());
    machine->Terminate(false);
    EXPECT_EQ("0", runDir.HostText("vms/4711/terminated"));
    runDir.RemoveHost("vms/4711");
    runDir.Host("vms/4711", "no folder");
    EXPECT_THROW(machine->Terminate(false), NodeAdmException);
}

} // namespace
