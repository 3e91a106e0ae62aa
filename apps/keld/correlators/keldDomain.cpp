#include "keldDomain.h"

KeldCorrelatorTable KeldDomainTable(const KeldDomain &domain)
{
    KeldCorrelatorTable table;
    for (const KeldObservation &observation : domain.observations)
        table.emplace(observation.id, observation.handler);
    for (std::size_t i = 0; i < domain.translations.rows.size(); ++i) {
        const Translation &row = domain.translations.rows[i];
        table.emplace(row.id, row.handler != nullptr ? row.handler : domain.translations.handlers[i]);
    }
    return table;
}

void KeldDomainRun(const KeldDomain &domain)
{
    std::vector<std::string> domains;
    for (const char *name : domain.domains)
        if (name != nullptr) domains.emplace_back(name);
    KeldCorrelatorRun(domain.name, domains, {}, domain.defaultHandler, KeldDomainTable(domain));
}
