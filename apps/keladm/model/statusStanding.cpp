#include "statusStanding.h"

#include "statusFile.h"

#include <fmt/format.h>

KeldStanding Standing(const KeldStatusThread &thread)
{
    return static_cast<KeldStanding>(StandingCode(thread));
}

std::size_t AwaitedPipe(const KeldStatusThread &thread)
{
    const auto pipe = static_cast<unsigned>(KeldStanding::Pipe);
    return StandingCode(thread) < pipe ? kKeldStatusThreads : StandingCode(thread) - pipe;
}

std::string StandsText(const KeldStatusFile &file, std::size_t place)
{
    const KeldStatusThread &thread = file.threads[place];
    const std::size_t awaited = AwaitedPipe(thread);
    if (awaited < kKeldStatusThreads) return fmt::format("waits for {}'s pipe", file.threads[awaited].name);
    const bool isAgent = place >= kKeldStatusFirstAgent;
    switch (Standing(thread)) {
    case KeldStanding::Begins:
        return "begins";
    case KeldStanding::Idle:
        return place == kKeldStatusAlarmThread ? "waits for an alarm" : "waits for observations";
    case KeldStanding::Works:
        return isAgent ? "works on an observation" : "works";
    case KeldStanding::Receiver:
        return "posting, waits for the receiver";
    case KeldStanding::Log:
        return "waits for the system log";
    case KeldStanding::Retries:
        return "sends again what could not be sent";
    case KeldStanding::Leaves:
        return "gives up its pipe";
    case KeldStanding::Ended:
        return "has ended";
    case KeldStanding::Stops:
        return "waits for the agents to end";
    default:
        return "is not there";
    }
}
