#include "knxctl/sysinfo.h"

#include "kifParameters.h"

namespace KnxCtl::Util {

Sysinfo::Sysinfo(KifNode node)
    : mNode(node), mInstance(std::make_unique<KifParameters>()), mInput(std::make_unique<KifParameters>())
{
}

Sysinfo::~Sysinfo() = default;

void Sysinfo::AddInstancePath(const std::string &name) { mInstance->Add(name); }

void Sysinfo::AddInput(std::int64_t value) { mInput->Add(value); }

KnxReturnStatus Sysinfo::Set()
{
    for (const KifParameters *parameters : {mInstance.get(), mInput.get()})
        if (parameters->Status() != KNX_OK) return parameters->Status();
    return KIF_Set(mNode, mInstance->Get(), mInput->Get());
}

} // namespace KnxCtl::Util
