// The kernel's advanced options.
#ifndef KNXCTL_ADVANCEDOPTION_H
#define KNXCTL_ADVANCEDOPTION_H

#include <cstdint>
#include <string>
#include <vector>

namespace KnxCtl::Adv {

// One integer option: AdvancedIntegerOptionImpl({"Net"}, "LinkFlappingThreshold").
class AdvancedIntegerOptionImpl {
public:
    AdvancedIntegerOptionImpl(std::vector<std::string> path, std::string name);

    // The value that the kernel has now. Throws NodeAdm::Lib::NodeAdmException when it cannot be read
    // or is negative.
    std::uint64_t GetValue() const;

private:
    std::vector<std::string> mPath; // the name is its last part
};

} // namespace KnxCtl::Adv

#endif
