#include "knxctl/advancedOption.h"

#include "kifParameters.h"
#include "knxctl/nodeAdmException.h"

#include <utility>

namespace KnxCtl::Adv {

AdvancedIntegerOptionImpl::AdvancedIntegerOptionImpl(std::vector<std::string> path, std::string name)
    : mPath(std::move(path))
{
    mPath.push_back(std::move(name));
}

std::uint64_t AdvancedIntegerOptionImpl::GetValue() const
{
    KifParameters instance;
    for (const std::string &part : mPath)
        instance.Add(part);
    KifIntOption option{};
    KnxReturnStatus status = instance.Status();
    if (status == KNX_OK)
        status = KIF_Get(KIF_NODE_config_intOptions, instance.Get(), &option, sizeof option);
    if (status == KNX_OK && option.current >= 0) return static_cast<std::uint64_t>(option.current);

    std::string text = "Option";
    for (const std::string &part : mPath)
        text += "/" + part;
    throw NodeAdm::Lib::NodeAdmException(text + (status == KNX_OK ? " is negative" : " cannot be read"));
}

} // namespace KnxCtl::Adv
