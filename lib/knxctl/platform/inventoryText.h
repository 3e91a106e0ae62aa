// Reading the inventory as the host-management libraries do: what fails throws.
#ifndef KNXCTL_INVENTORYTEXT_H
#define KNXCTL_INVENTORYTEXT_H

#include "knxctl/nodeAdmException.h"

#include <cerrno>
#include <hostInventory.h>
#include <string>
#include <system_error>
#include <vector>

namespace KnxCtl {

[[noreturn]] inline void Fail(const std::string &what, int error)
{
    throw NodeAdm::Lib::NodeAdmException(what + ": " + std::generic_category().message(error));
}

inline std::string ReadOrFail(const HostInventory::Path &path, const std::string &what)
{
    int error = 0;
    std::optional<std::string> text = HostInventory::ReadText(path, &error);
    if (!text) Fail(what, error);
    return *std::move(text);
}

inline std::vector<std::string> ListOrFail(const HostInventory::Path &path, const std::string &what)
{
    int error = 0;
    std::vector<std::string> names = HostInventory::List(path, &error);
    if (error != 0) Fail(what, error);
    return names;
}

} // namespace KnxCtl

#endif
