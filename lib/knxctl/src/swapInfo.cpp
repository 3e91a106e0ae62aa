#include "knxctl/swapInfo.h"

#include "knxctl/nodeAdmException.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <hostInventory.h>
#include <string>

using NodeAdm::Lib::NodeAdmException;

namespace KnxCtl::System {

namespace {

[[noreturn]] void Throw(const char *what, int error)
{
    throw NodeAdmException(std::string("System swap: ") + what + ": " + std::strerror(error));
}

} // namespace

SwapInfoImpl::SwapInfoImpl() = default;
SwapInfoImpl::~SwapInfoImpl() = default;

void SwapInfoImpl::ReconfigureSysSwap(int)
{
    const HostInventory::Path failurePath{"swap", "failure"};
    int error = 0;
    if (const auto failure = HostInventory::ReadText(failurePath, &error)) throw NodeAdmException(*failure);
    if (error != 0 && error != ENOENT) Throw("cannot read swap/failure", error);

    const HostInventory::Path countPath{"swap", "reconfigured"};
    std::uint64_t count = 0;
    error = HostInventory::ReadUnsigned(countPath, UINT64_MAX - 1, &count);
    if (error != 0 && error != ENOENT) Throw("cannot read swap/reconfigured", error);
    error = HostInventory::WriteText(countPath, std::to_string(count + 1));
    if (error != 0) Throw("cannot write swap/reconfigured", error);
}

} // namespace KnxCtl::System
