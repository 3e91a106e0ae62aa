// What a correlator is made of: its rows, and the table that they become.
//
// The catalogue is written from the same KeldDomain, so that neither can know what the other does not.
#ifndef KELD_DOMAIN_H
#define KELD_DOMAIN_H

#include "keldHandler.h"
#include "keldNote.h"

#include <array>
#include <span>

// An observation with a handler of its own. "Known and deliberately ignored" is such a row too.
struct KeldObservation {
    const char *id;
    KeldArguments arguments;
    KeldHandler handler;
    KeldNote note; // what becomes of it: "gathered for {delay} per NIC, then ..."
    std::array<const EventText *, 8> posts{}; // what it can lead to
};

// The rows of one translation table with their handlers: KeldTranslations<kRows>.
struct KeldTranslationTable {
    std::span<const Translation> rows;
    const KeldHandler *handlers = nullptr;
};
template <const auto &kRows>
inline constexpr KeldTranslationTable KeldTranslations{{kRows}, KeldRow::kHandlers<kRows>.data()};

// Makes an observation of each row of a table, by of(row): for rows whose handlers do more than translate.
template <const auto &kRows, class Of> consteval auto KeldObservationsOf(Of of)
{
    return [&]<std::size_t... kIndex>(std::index_sequence<kIndex...>)
    {
        return std::array{KeldObservation(of(kRows[kIndex]))...};
    }
    (std::make_index_sequence<std::size(kRows)>{});
}

struct KeldDomain {
    const char *name;                      // the agent is called this and "Correlator"
    std::array<const char *, 2> domains{}; // "net" stands for every "kel.net."
    KeldHandler defaultHandler = KeldCorrelatorIgnore;
    KeldNote otherwise = "ignored"; // what becomes of other observations
    KeldTranslationTable translations{};
    std::span<const KeldObservation> observations{};
    const EventText *defaultPosts = nullptr; // what the default handler can post
};

// The table from observation ID to handler.
KeldCorrelatorTable KeldDomainTable(const KeldDomain &domain);

// Builds the table and runs the common loop: all that a correlator without set-up of its own starts.
void KeldDomainRun(const KeldDomain &domain);

#endif
