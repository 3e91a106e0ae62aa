#include "sender.h"

#include "failure.h"
#include "runDirectory.h"

#include "kltlibs/kelrecord.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fmt/format.h>

namespace {

constexpr auto kRefusedPatience = std::chrono::seconds(1);
constexpr auto kRefusedPause = std::chrono::milliseconds(50);
constexpr const char *kRefused =
    "the daemon has closed the connection; it serves eight programs at a time, or it has ended";
static_assert(ETIMEDOUT > EPIPE, "what is not known is worse than what was refused");

std::uint64_t Now()
{
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

} // namespace

void Sender::Send(const Observation &observation, std::optional<std::uint64_t> timestamp)
{
    KelProducer *producer = Producer(observation.context);
    std::vector<char> record = observation.record;
    std::uint64_t microseconds = timestamp ? *timestamp : Now();
    std::memcpy(record.data(), &microseconds, sizeof microseconds);

    if (mStopFd >= 0) {
        pollfd fds[] = {{KelProducer_Fd(producer), POLLOUT, 0}, {mStopFd, POLLIN, 0}};
        for (auto until = Clock::now() + mPatience; fds[0].revents == 0;) {
            PollUntil(fds, until);
            if (fds[1].revents != 0) throw Stopped{};
            if (fds[0].revents == 0 && Clock::now() >= until)
                throw Failure(kExitFailed, fmt::format("{}: the daemon takes no more observations",
                                                       KelRecord_ID(record.data())));
        }
    }
    int error = KelProducer_Send(producer, record.data(), record.size());
    if (error == 0) return;
    mProducers.erase(observation.context);
    bool refused = error == EPIPE || error == ECONNREFUSED || error == ECONNRESET;
    throw Failure(refused ? kExitRefused : kExitFailed,
                  fmt::format("{}: not sent to context {}: {}", KelRecord_ID(record.data()),
                              observation.context, refused ? kRefused : std::strerror(error)));
}

void Sender::Close()
{
    int worst = 0;
    for (auto &[context, producer] : mProducers)
        worst = std::max(worst, KelProducer_Close(producer.release()));
    mProducers.clear();
    if (worst == ETIMEDOUT)
        throw Failure(kExitNotKnown,
                      "not known whether the daemon has taken what was sent: it is busy and has "
                      "not said so within 5 s; do not send it again before you have looked");
    if (worst != 0)
        throw Failure(kExitRefused, fmt::format("the last that was sent was not taken: {}", kRefused));
}

void SendAndAwait(const Observation &observation)
{
    auto until = Clock::now() + kRefusedPatience;
    for (;;) {
        try {
            Sender sender;
            sender.Send(observation);
            sender.Close();
            return;
        } catch (const Failure &failure) {
            if (failure.status != kExitRefused || Clock::now() >= until) throw;
        }
        PollUntil({}, std::min(until, Clock::now() + kRefusedPause));
    }
}

KelProducer *Sender::Producer(int context)
{
    if (auto found = mProducers.find(context); found != mProducers.end()) return found->second.get();
    KelProducer *producer = nullptr;
    int error = KelProducer_Open(context, &producer);
    if (error == ENOENT || error == ECONNREFUSED) throw Failure(kExitNoPeer, NoDaemonText());
    if (error != 0)
        throw Failure(kExitFailed, fmt::format("cannot reach context {} of the daemon in {}: {}", context,
                                               RunDirectoryPath(""), std::strerror(error)));
    mProducers.emplace(context, ProducerPtr(producer, KelProducer_Close));
    return producer;
}
