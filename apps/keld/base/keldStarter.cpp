#include "keldStarter.h"

#include <kltlibs/ksyslog.h>
#include <kltlibs/ktime.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <string_view>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace {

constexpr std::size_t kLineBytesMax = 1024; // a pipe with room takes as many at once
constexpr std::uint64_t kBetweenLossesSeconds = 60;

struct Loss {
    const char *format; // given how many
    std::uint64_t untold = 0;
    std::optional<std::uint64_t> toldAt{}; // monotonic seconds
};
std::array<Loss, 2> losses{{
    {"%" PRIu64 " producers were turned away: eight are served at a time"},
    {"%" PRIu64 " lines were not taken by the system log"},
}};

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the table's own
void TellLoss(Loss &loss) { KeldTell(loss.format, std::exchange(loss.untold, 0)); }
#pragma GCC diagnostic pop

} // namespace

void KeldTell(const char *format, ...)
{
    char line[kLineBytesMax] = "keld: ";
    constexpr std::size_t kStart = std::string_view("keld: ").size();
    va_list args;
    va_start(args, format);
    const int length = std::vsnprintf(line + kStart, sizeof line - kStart - 1, format, args);
    va_end(args);
    const std::size_t end =
        std::min(kStart + static_cast<std::size_t>(std::max(length, 0)), sizeof line - 2);
    line[end] = '\n';
    KeldTellBytes(line, end + 1);
}

void KeldTellBytes(const char *bytes, std::size_t length)
{
    if (send(STDERR_FILENO, bytes, length, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0 || errno != ENOTSOCK) return;
    pollfd room{.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    if (poll(&room, 1, 0) == 1 && (room.revents & POLLOUT) != 0) (void)!write(STDERR_FILENO, bytes, length);
}

void KeldOpenStandardDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        if (fcntl(fd, F_GETFD) < 0)
            (void)open("/dev/null", O_RDWR); // takes the lowest number, which is this one
}

void KeldTellLoss(KeldLoss what, std::uint64_t howMany)
{
    Loss &loss = losses[static_cast<std::size_t>(what)];
    loss.untold += howMany;
    const std::uint64_t now = KTime_MonotonicSeconds();
    if (loss.untold == 0 || (loss.toldAt && now - *loss.toldAt < kBetweenLossesSeconds)) return;
    loss.toldAt = now;
    TellLoss(loss);
}

void KeldTellLostLogLines()
{
    static std::uint64_t seen = 0;
    const std::uint64_t lost = KSyslog_LostLines();
    if (lost != seen) KeldTellLoss(KeldLoss::LogLines, lost - std::exchange(seen, lost));
}

void KeldTellLossesLeft()
{
    KeldTellLostLogLines();
    for (Loss &loss : losses)
        if (loss.untold != 0) TellLoss(loss);
}
