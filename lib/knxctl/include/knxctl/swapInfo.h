// System swap.
#ifndef KNXCTL_SWAPINFO_H
#define KNXCTL_SWAPINFO_H

namespace KnxCtl::System {

// Throws NodeAdm::Lib::NodeAdmException on failure. One thread at a time.
class SwapInfoImpl {
public:
    SwapInfoImpl();
    ~SwapInfoImpl();
    SwapInfoImpl(const SwapInfoImpl &) = delete;
    SwapInfoImpl &operator=(const SwapInfoImpl &) = delete;

    // Chooses a place for the system's swap file anew and starts to swap there. options is 0.
    void ReconfigureSysSwap(int options);
};

} // namespace KnxCtl::System

#endif
