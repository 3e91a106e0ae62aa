// All correlators: what the daemon starts, and what the catalogue lists.
#ifndef KELD_DOMAINS_H
#define KELD_DOMAINS_H

#include "keldAgent.h"

#include <array>

struct KeldDomain;

struct KeldCorrelatorEntry {
    KeldAgentEntry start;
    const KeldDomain &domain;
};

extern const std::array<KeldCorrelatorEntry, 18> keldCorrelators;

#endif
