#include "knxctl/swapInfo.h"

#include "inventoryText.h"

#include <cerrno>
#include <cstdint>
#include <string>

namespace KnxCtl::System {

SwapInfoImpl::SwapInfoImpl() = default;
SwapInfoImpl::~SwapInfoImpl() = default;

void SwapInfoImpl::ReconfigureSysSwap(int)
{
    const HostInventory::Path failurePath{"swap", "failure"};
    int error = 0;
    if (const auto failure = HostInventory::ReadText(failurePath, &error))
        throw NodeAdm::Lib::NodeAdmException(*failure);
    if (error != 0 && error != ENOENT) Fail("System swap: cannot read swap/failure", error);

    const HostInventory::Path countPath{"swap", "reconfigured"};
    std::uint64_t count = 0;
    error = HostInventory::ReadUnsigned(countPath, UINT64_MAX - 1, &count);
    if (error != 0 && error != ENOENT) Fail("System swap: cannot read swap/reconfigured", error);
    error = HostInventory::WriteText(countPath, std::to_string(count + 1));
    if (error != 0) Fail("System swap: cannot write swap/reconfigured", error);
}

} // namespace KnxCtl::System
