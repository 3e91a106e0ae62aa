// Links that flap, a part of uplink tracking. The Net agent's thread only.
#ifndef KELD_LINKFLAPPING_H
#define KELD_LINKFLAPPING_H

#include "keldTranslation.h"

#include <string>

inline constexpr std::uint64_t kFlapWindowSeconds = 60;

// clang-format off
inline constexpr EventText kLinkFlapping(
    "@&!*@*@(nox.problem.net.vmnic.linkstate.flapping)Taking down physical NIC %s because the link is flapping.",
    "*nic");
// clang-format on

struct LinkFlapping {
    std::size_t linkDowns; // within the window
    const char *verdict;
};

// Counts that the NIC's link went down. A NIC whose link went down more often within the window than the
// kernel's option allows is taken down, and posted; then counting begins anew. May take its time.
LinkFlapping CheckLinkFlapping(const std::string &nic);

#endif
