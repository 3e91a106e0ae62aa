#include "keldLog.h"

#include "keldOwn.h"

#include <kltlibs/kel.h>
#include <kltlibs/kthread.h>
#include <kltlibs/ktime.h>
#include <kltlibs/str.h>

#include <atomic>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <syslog.h>

namespace {

constexpr std::size_t kPrefixBytes = 32;
constexpr char kPanicPrefix[] = "Keld - Panic: ";

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral" // the callers' formats are checked where they call

// The prefix is pasted into the format, so that one call writes one line.
void LogVA(const char *format, va_list args)
{
    char prefix[kPrefixBytes] = "";
    KeldLogTimestamp(true, prefix, sizeof prefix);
    const MessageText prefixed(Str_Asprintf(nullptr, "%s%s", prefix, format));
    vsyslog(LOG_INFO, prefixed ? prefixed.get() : format, args);
}

// localtime_r does not look at the zone again, tzset does and costs a look at the zone file: once a
// second is soon enough for a zone that changes. One thread at a time looks, and none waits for it.
void LocalTime(std::time_t seconds, std::tm *local)
{
    [[maybe_unused]] static const bool first = (tzset(), true); // later, localtime_r has nothing to set up
    static std::atomic<std::time_t> zoneSeenAt{-1};
    static std::atomic_flag looking;
    if (zoneSeenAt.load(std::memory_order_relaxed) != seconds &&
        !looking.test_and_set(std::memory_order_acquire)) {
        zoneSeenAt.store(seconds, std::memory_order_relaxed);
        tzset();
        looking.clear(std::memory_order_release);
    }
    localtime_r(&seconds, local);
}

} // namespace

void KeldLog(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    LogVA(format, args);
    va_end(args);
}

void Panic(const char *format, ...)
{
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    std::fwrite(kPanicPrefix, 1, sizeof kPanicPrefix - 1, stderr);
    std::vfprintf(stderr, format, args);
    KeldLog("%s", kPanicPrefix);
    LogVA(format, again);
    std::abort();
}
#pragma GCC diagnostic pop

void KeldNotReached(const char *module, int line) { Panic("NOT_REACHED %s:%d\n", module, line); }
void KeldMemAlloc(const char *module, int line) { Panic("MEM_ALLOC %s:%d\n", module, line); }

void KeldLogKel(Kel *kel)
{
    const char *id = nullptr;
    std::uint64_t microseconds = 0;
    char *message = nullptr;
    (void)Kel_GetID(kel, &id);
    (void)Kel_GetTimestamp(kel, &microseconds);
    (void)Kel_GetMsg(kel, &message, nullptr);
    const MessageText owned(message);
    KeldLogTraceLine(id, message, microseconds);
}

void KeldLogTraceLine(const char *id, const char *message, std::uint64_t microseconds)
{
    KeldLog("[%s] %" PRIu64 "us: [%s] %s\n", KThreadBase_CurName(), microseconds,
            id != nullptr ? id : "(null)", message != nullptr ? message : "(null)");
}

std::size_t KeldLogTimestamp(bool milliseconds, char *buffer, std::size_t size)
{
    timeval now;
    if (KTime_GetTimeOfDay(&now) != 0) return 0;
    std::tm local;
    LocalTime(now.tv_sec, &local);
    // KEPT: local time under a literal Z; whoever reads this host's logs is used to it.
    const std::size_t length = std::strftime(buffer, size, "%Y-%m-%dT%H:%M:%SZ: ", &local);
    if (length < 3 || !milliseconds) return length;
    const int written = Str_Sprintf(buffer + length - 3, size - length + 3,
                                    ".%03dZ: ", static_cast<int>(now.tv_usec / 1000));
    return written < 0 ? length - 3 : length - 3 + static_cast<std::size_t>(written);
}
