// The correlator framework: a table from observation ID to handler, and the loop around it.
#ifndef KELD_CORRELATOR_H
#define KELD_CORRELATOR_H

#include "keldFate.h"

#include <kltlibs/kel.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

// Called on the correlator's own thread, one observation at a time; the Kel is the loop's.
using KeldHandler = void (*)(Kel *);
using KeldCorrelatorTable = std::map<std::string, KeldHandler, std::less<>>;

// The common loop. Subscribes the calling thread under the name domainName + "Correlator" to every
// observation of the domains (the "net" of "kel.net.") and to the exact IDs, and hands each to its
// handler, or to defaultHandler, until the agent's pipe fails.
void KeldCorrelatorRun(const char *domainName, const std::vector<std::string> &domains,
                       const std::vector<std::string> &exactIds, KeldHandler defaultHandler,
                       const KeldCorrelatorTable &table);
void KeldCorrelatorRun(const char *domainName, const char *domain, KeldHandler defaultHandler,
                       const KeldCorrelatorTable &table);

// The same with up to 4 descriptors beside the pipe; wake is called when one becomes readable, after
// up to 10 bytes were read from it and thrown away.
void KeldCorrelatorRunWithFds(const char *domainName, const char *domain, KeldHandler defaultHandler,
                              const KeldCorrelatorTable &table, void (*wake)(), const int *fds,
                              int fdCount);

// Looks the observation up and calls its handler, with a trace line before; or the default handler.
// Tells the observation's fate when the handler has returned or thrown; origin says which observation it
// is.
void KeldCorrelate(KeldHandler defaultHandler, const KeldCorrelatorTable &table, Kel *kel,
                   KeldOrigin origin = {});

// The three kinds of default handler: they do nothing, write a trace line, or log
// "No correlator for %s \n".
void KeldCorrelatorIgnore(Kel *kel);
void KeldCorrelatorLogKel(Kel *kel);
void KeldCorrelatorLogUnknown(Kel *kel);

#endif
