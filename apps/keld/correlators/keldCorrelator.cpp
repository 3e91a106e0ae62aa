#include "keldCorrelator.h"

#include "keldAgent.h"
#include "keldLog.h"

#include <kltlibs/str.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <exception>
#include <string_view>

namespace {

constexpr int kExtraFdsMax = 4; // beside the agent's own pipe

std::string AgentName(const char *domainName)
{
    const MessageText name(Str_Asprintf(nullptr, "%sCorrelator", domainName));
    return name ? name.get() : domainName;
}

// Tells once in each tick of the coarse clock, a few milliseconds, that it has moved. Between two
// observations a system call for each would be a tenth of what an ignored one costs.
class OncePerTick {
public:
    bool Now()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
        const bool moved = now.tv_nsec != mLast.tv_nsec || now.tv_sec != mLast.tv_sec;
        mLast = now;
        return moved;
    }

private:
    timespec mLast{};
};

// Correlates the observation that the agent has just taken out of its pipe.
void Correlate(KeldHandler defaultHandler, const KeldCorrelatorTable &table, const KeldAgent &agent,
               Kel *kel)
{
    const KelPtr owned(kel);
    KeldCorrelate(defaultHandler, table, kel, {agent.stream->number, agent.stream->taken});
}

// KeldCorrelate's look-up and call, while the observation is the thread's present one.
void Handle(KeldHandler defaultHandler, const KeldCorrelatorTable &table, Kel *kel)
{
    const char *id = nullptr;
    (void)Kel_GetID(kel, &id);
    const auto found = id != nullptr ? table.find(std::string_view(id)) : table.end();
    const KeldHandler handler = found != table.end() ? found->second : nullptr;
    if (handler == nullptr) {
        KeldSayByItself(KeldFate::NoHandler, "the agent has no row for this ID");
        defaultHandler(kel);
        return;
    }
    KeldLogKel(kel);
    handler(kel);
}

} // namespace

void KeldCorrelatorRun(const char *domainName, const std::vector<std::string> &domains,
                       const std::vector<std::string> &exactIds, KeldHandler defaultHandler,
                       const KeldCorrelatorTable &table)
{
    KeldAgentRun(AgentName(domainName), domains, exactIds, [&](KeldAgent *agent) {
        Kel *kel = nullptr;
        while (KeldAgentWaitForKel(agent, &kel) == 0)
            Correlate(defaultHandler, table, *agent, kel);
    });
}

void KeldCorrelatorRun(const char *domainName, const char *domain, KeldHandler defaultHandler,
                       const KeldCorrelatorTable &table)
{
    KeldCorrelatorRun(domainName, {domain}, {}, defaultHandler, table);
}

void KeldCorrelatorRunWithFds(const char *domainName, const char *domain, KeldHandler defaultHandler,
                              const KeldCorrelatorTable &table, void (*wake)(), const int *fds, int fdCount)
{
    KeldAgentRun(AgentName(domainName), {domain}, {}, [&](KeldAgent *agent) {
        std::array<pollfd, 1 + kExtraFdsMax> set{};
        const auto used = static_cast<std::size_t>(1 + std::min(fdCount, kExtraFdsMax));
        OncePerTick looks;
        for (;;) {
            for (std::size_t i = 0; i < used; ++i)
                set[i] = {.fd = i == 0 ? agent->fd : fds[i - 1], .events = POLLIN, .revents = 0};
            // While more observations are at hand, the other descriptors are polled without waiting, once a
            // tick.
            const bool goesOn = KeldAgentGoesOn(agent);
            if (goesOn) set[0].revents = POLLIN;
            const int ready = !goesOn       ? KeldAgentPoll(set.data(), used)
                              : looks.Now() ? poll(&set[1], used - 1, 0)
                                            : 0;
            if (ready < 0) {
                if (errno == EINTR) continue;
                KeldLog("Failed to poll - %s\n", std::strerror(errno));
                return;
            }
            if ((set[0].revents & POLLIN) != 0) {
                Kel *kel = nullptr;
                bool complete = false;
                if (KeldStreamReadKel(agent->stream, &kel, &complete) != 0) {
                    KeldLog("Failed to get Kel\n");
                    return;
                }
                if (complete) Correlate(defaultHandler, table, *agent, kel);
            }
            for (std::size_t i = 1; i < used; ++i) {
                if ((set[i].revents & POLLIN) == 0) continue;
                char scratch[10];
                (void)!read(set[i].fd, scratch, sizeof scratch);
                wake();
            }
        }
    });
}

void KeldCorrelate(KeldHandler defaultHandler, const KeldCorrelatorTable &table, Kel *kel,
                   KeldOrigin origin)
{
    const KeldHandling handling(origin);
    try {
        Handle(defaultHandler, table, kel);
    } catch (const std::exception &exception) {
        KeldSay(KeldFate::HandlerFailed, "%s", exception.what());
        throw;
    } catch (...) {
        KeldSay(KeldFate::HandlerFailed, "an unknown exception");
        throw;
    }
}

void KeldCorrelatorIgnore(Kel *)
{
    if (!KeldHasFate()) KeldSayByItself(KeldFate::Ignored, "on purpose");
}

void KeldCorrelatorLogKel(Kel *kel)
{
    KeldLogKel(kel);
    if (!KeldHasFate()) KeldSayByItself(KeldFate::Ignored, "written to the log");
}

void KeldCorrelatorLogUnknown(Kel *kel)
{
    const char *id = nullptr;
    (void)Kel_GetID(kel, &id);
    if (id == nullptr)
        KeldLog("FAIL: Received NULL kelID\n");
    else
        KeldLog("No correlator for %s \n", id);
}
