#include "keldTranslation.h"

namespace KeldRow {

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // proved when the row was built
void LogFailedRead(const Translation &row, const Kel *kel, std::size_t failedAt, int status)
{
    const char *message = failedAt < row.options.failed.size() ? row.options.failed[failedAt] : nullptr;
    if (message == nullptr) return;
    const bool byIndex = row.arguments.by == KeldArguments::By::Index;
    if (byIndex && KeldShape::CountConversions(message) == 1) {
        KeldLog(message, status);
        return;
    }
    const char *subject = nullptr;
    (void)(byIndex ? Kel_GetStringArg(kel, 0, &subject) : Kel_GetID(kel, &subject));
    KeldLog(message, subject, status);
}
#pragma GCC diagnostic pop

} // namespace KeldRow

KeldCorrelatorTable KeldDomainTable(const KeldDomain &domain)
{
    KeldCorrelatorTable table;
    for (const KeldObservation &observation : domain.observations)
        table.emplace(observation.id, observation.handler);
    for (std::size_t i = 0; i < domain.translations.rows.size(); ++i)
        table.emplace(domain.translations.rows[i].id, domain.translations.handlers[i]);
    return table;
}

void KeldDomainRun(const KeldDomain &domain)
{
    std::vector<std::string> domains;
    for (const char *name : domain.domains)
        if (name != nullptr) domains.emplace_back(name);
    KeldCorrelatorRun(domain.name, domains, {}, domain.defaultHandler, KeldDomainTable(domain));
}
