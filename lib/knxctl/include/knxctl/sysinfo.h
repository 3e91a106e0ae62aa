// The kernel's information nodes.
#ifndef KNXCTL_SYSINFO_H
#define KNXCTL_SYSINFO_H

#include <cstdint>
#include <kltlibs/kif.h>
#include <memory>
#include <string>

class KifParameters;

namespace KnxCtl::Util {

// One access to a node: name the instance, give the input, set it.
class Sysinfo {
public:
    explicit Sysinfo(KifNode node);
    ~Sysinfo();

    void AddInstancePath(const std::string &name);
    void AddInput(std::int64_t value);

    // KNX_OK, or the kernel's status; KNX_NO_MEMORY also when something could not be added before.
    KnxReturnStatus Set();

private:
    KifNode mNode;
    std::unique_ptr<KifParameters> mInstance, mInput;
};

} // namespace KnxCtl::Util

#endif
