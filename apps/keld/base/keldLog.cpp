#include "keldLog.h"

#include "keldOwn.h"
#include "keldStarter.h"

#include <kltlibs/kel.h>
#include <kltlibs/ksyslog.h>
#include <kltlibs/kthread.h>
#include <kltlibs/ktime.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string_view>

namespace {

constexpr std::size_t kPrefixBytes = 32;
constexpr char kPanicPrefix[] = "Keld - Panic: ";
constexpr std::size_t kPanicBytesMax = 1024; // on standard error; the log takes all

// "2026-03-01T12:00:00.123Z: ", with what stands before the point rendered anew once a second for each
// thread.
//
// KEPT: local time under a literal Z; whoever reads this host's logs is used to it.
std::size_t Prefix(const timeval &now, bool milliseconds, char *buffer, std::size_t size)
{
    thread_local struct {
        std::time_t second = -1;
        std::size_t length = 0;
        char text[kPrefixBytes];
    } seconds;
    if (seconds.second != now.tv_sec) {
        std::tm local;
        KTime_LocalTime(now.tv_sec, &local);
        seconds.length = std::strftime(seconds.text, sizeof seconds.text, "%Y-%m-%dT%H:%M:%S", &local);
        seconds.second = now.tv_sec;
    }
    const std::string_view rest = milliseconds ? ".000Z: " : "Z: ";
    if (seconds.length == 0 || seconds.length + rest.size() >= size) return 0;
    std::memcpy(buffer, seconds.text, seconds.length);
    std::memcpy(buffer + seconds.length, rest.data(), rest.size() + 1);
    if (milliseconds)
        for (long value = now.tv_usec / 1000, at = 3; at > 0; --at, value /= 10)
            buffer[seconds.length + static_cast<std::size_t>(at)] = static_cast<char>('0' + value % 10);
    return seconds.length + rest.size();
}

// A line that begins with its time; without one, when it cannot be read.
class Line : public KSyslogLine {
public:
    Line() : Line(Now()) {}

private:
    struct Time {
        timeval now{};
        bool known = false;
    };
    static Time Now()
    {
        Time time;
        time.known = KTime_GetTimeOfDay(&time.now) == 0;
        return time;
    }
    explicit Line(const Time &time) : KSyslogLine(time.now)
    {
        char prefix[kPrefixBytes];
        if (time.known) Append({prefix, Prefix(time.now, true, prefix, sizeof prefix)});
    }
};

__attribute__((format(printf, 1, 0))) void LogVA(const char *format, va_list args)
{
    Line line;
    line.AppendFormatted(format, args);
    line.Send();
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
    KSyslog_StopWaiting();
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    char message[kPanicBytesMax];
    const int length = std::vsnprintf(message, sizeof message, format, args);
    KeldTellBytes(kPanicPrefix, sizeof kPanicPrefix - 1);
    KeldTellBytes(message, std::min(static_cast<std::size_t>(std::max(length, 0)), sizeof message - 1));
    KeldLog("%s", kPanicPrefix);
    LogVA(format, again);
    std::abort();
}

void KeldNotReached(const char *module, int line) { Panic("NOT_REACHED %s:%d\n", module, line); }

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
    Line line;
    line.Append("[");
    line.Append(KThreadBase_CurName());
    line.Append("] ");
    line.Append(microseconds);
    line.Append("us: [");
    line.Append(id != nullptr ? id : "(null)");
    line.Append("] ");
    line.Append(message != nullptr ? message : "(null)");
    line.Append("\n");
    line.Send();
}

std::size_t KeldLogTimestamp(bool milliseconds, char *buffer, std::size_t size)
{
    timeval now;
    return KTime_GetTimeOfDay(&now) == 0 ? Prefix(now, milliseconds, buffer, size) : 0;
}
