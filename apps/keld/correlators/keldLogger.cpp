#include "keldDomains.h"

#include "keldAgent.h"
#include "keldCorrelator.h"
#include "keldLog.h"
#include "keldOwn.h"

#include <kltlibs/str.h>

void KeldLogger_Start()
{
    const MessageText name(Str_Asprintf(nullptr, "%sLogger", "LogAll"));
    // KEPT: eleven domains, one more than a subscription holds: the agent fails to initialize and ends.
    // With ten, it would double the log of whoever starts the optional agents.
    const std::vector<std::string> domains{"user", "internal", "external", "net",  "scsi",   "dsfs",
                                           "cpu",  "hardware", "mem",      "test", "migrate"};
    KeldAgentRun(name ? name.get() : "LogAll", domains, {}, [](KeldAgent *agent) {
        Kel *kel = nullptr;
        while (KeldAgentWaitForKel(agent, &kel) == 0) {
            const KeldHandling handling({agent->stream->number, agent->stream->taken});
            KeldCorrelatorLogKel(KelPtr(kel).get());
        }
    });
}
