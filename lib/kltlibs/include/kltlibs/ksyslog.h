// The system log: the very datagrams that libc's vsyslog would send (RFC 3164: priority, local time,
// program name), by a sender of our own that nobody can block.
//
// libc's call blocks for as long as the log daemon does not read, and holds a lock meanwhile: one stuck log
// daemon would stop every thread that has something to say. Here a line goes out on a non-blocking socket.
// When the log does not take it, all threads together wait for at most KSYSLOG_WAIT_MILLISECONDS in any
// minute; beyond that, lines are lost and counted, and the first line that is taken again says how many.
//
// A line that fails because the log daemon was restarted opens the socket anew. Every function may be
// called from every thread; none takes a lock that another thread keeps while it waits.
#ifndef KLTLIBS_KSYSLOG_H
#define KLTLIBS_KSYSLOG_H

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <sys/time.h>

inline constexpr int KSYSLOG_WAIT_MILLISECONDS = 1000;

// One line, put together piece by piece and sent: on the stack up to 2 KiB, on the heap beyond that. No
// newline is added.
class KSyslogLine {
public:
    // now: what KTime_GetTimeOfDay gave.
    explicit KSyslogLine(const timeval &now);
    ~KSyslogLine();
    KSyslogLine(const KSyslogLine &) = delete;
    KSyslogLine &operator=(const KSyslogLine &) = delete;

    void Append(std::string_view text);
    void Append(std::uint64_t number);
    void AppendFormatted(const char *format, va_list args) __attribute__((format(printf, 2, 0)));

    // Once, last. A line without memory for its whole length, or too large for the socket, is a lost one.
    void Send();

private:
    static constexpr std::size_t kBytes = 2048;

    bool Reserve(std::size_t bytes);

    timeval mNow;
    char mFixed[kBytes];
    char *mText = mFixed;
    std::size_t mSize = kBytes;
    std::size_t mLength = 0;
    bool mWhole = true; // nothing is missing for want of memory
};

// Opens the socket now, not with the first line: a process that is short of descriptors later has it.
void KSyslog_Open();

// From here on no line waits for the log: the process is leaving. For good.
void KSyslog_StopWaiting();

// How many lines were lost since the process began, those that were told of included.
std::uint64_t KSyslog_LostLines();

// What happens to a thread that logs: told on that thread, which may then neither log nor fail. Null for
// nobody; set before the first thread starts.
enum class KSyslogMoment { Waits, GoesOn, LosesLine };
void KSyslog_SetObserver(void (*observer)(KSyslogMoment));

// Every later line goes to sink, without its header, instead of to the log; null goes back. For tests and
// simulators, before the first thread starts. sink is called on the thread that logs.
void KSyslog_SetSink(void (*sink)(const char *message, std::size_t length));

#endif
