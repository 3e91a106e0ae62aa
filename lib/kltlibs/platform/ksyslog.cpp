#include "kltlibs/ksyslog.h"

#include "kltlibs/ktime.h"
#include "kltlibs/uniquefd.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <mutex>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr sockaddr_un kLog{AF_UNIX, "/dev/log"};
constexpr int kSliceMilliseconds = 20; // of the common patience, taken at a time

// The descriptor keeps its number for the process's life: what is opened anew takes its place at once, so
// that no thread can send into a number that has become somebody else's.
struct Log {
    std::atomic<int> fd{-1};
    std::atomic<bool> isStream{false};
    std::mutex opening;
    std::mutex streaming; // keeps lines on a stream apart
};
Log &log = *new Log; // threads log while the process leaves

std::atomic<void (*)(const char *, std::size_t)> sink{nullptr};
std::atomic<void (*)(KSyslogMoment)> observer{nullptr};
std::atomic<bool> waits{true};
std::atomic<std::uint64_t> lost{0}; // since the process began
std::atomic<std::uint64_t> told{0}; // of them

void Tell(KSyslogMoment moment)
{
    if (const auto to = observer.load(std::memory_order_relaxed); to != nullptr) to(moment);
}

int SendOnce(int fd, const char *line, std::size_t length);
int OpenLog(int failedFd);
bool AwaitRoom(int fd);

// ---- One line -------------------------------------------------------------------------------------

// True when the log took it.
bool SendLine(const char *line, std::size_t length)
{
    int fd = log.fd.load(std::memory_order_acquire);
    bool opened = false;
    for (;;) {
        const int error = fd < 0 ? ENOTCONN : SendOnce(fd, line, length);
        switch (error) {
        case 0:
            return true;
        case EAGAIN:
        case ENOBUFS:
            if (!AwaitRoom(fd)) return false;
            break;
        case EMSGSIZE:
            return false;
        default: // there is no log, or another than before
            if (opened) return false;
            opened = true;
            fd = OpenLog(fd);
            if (fd < 0) return false;
        }
    }
}

// 0 or an errno value.
int SendOnce(int fd, const char *line, std::size_t length)
{
    if (!log.isStream.load(std::memory_order_relaxed)) {
        while (send(fd, line, length, MSG_NOSIGNAL | MSG_DONTWAIT) < 0)
            if (errno != EINTR) return errno;
        return 0;
    }
    // On a stream a NUL ends each line.
    const std::lock_guard alone(log.streaming);
    iovec pieces[] = {{const_cast<char *>(line), length}, {const_cast<char *>(""), 1}};
    msghdr message{};
    message.msg_iov = pieces;
    message.msg_iovlen = 2;
    ssize_t sent = 0;
    while ((sent = sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT)) < 0)
        if (errno != EINTR) return errno;
    if (static_cast<std::size_t>(sent) == length + 1) return 0;
    shutdown(fd, SHUT_RDWR); // what follows would be taken for the rest of this line
    return EMSGSIZE;
}

// ---- The connection -------------------------------------------------------------------------------

// A descriptor that is connected to the log, or -1.
UniqueFd Connected(int type)
{
    UniqueFd fd(socket(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.Get() >= 0 && connect(fd.Get(), reinterpret_cast<const sockaddr *>(&kLog), sizeof kLog) == 0)
        return fd;
    return UniqueFd();
}

// The descriptor, connected anew unless another thread has done so since failedFd failed; -1 when there is
// no log. Nothing in here waits for the log.
int OpenLog(int failedFd)
{
    const std::lock_guard alone(log.opening);
    const int present = log.fd.load(std::memory_order_relaxed);
    if (present != failedFd) return present; // the first one
    bool isStream = false;
    UniqueFd fresh = Connected(SOCK_DGRAM);
    if (fresh.Get() < 0 && errno == EPROTOTYPE) {
        isStream = true;
        fresh = Connected(SOCK_STREAM);
    }
    if (fresh.Get() < 0) return -1;
    log.isStream.store(isStream, std::memory_order_relaxed);
    if (present >= 0) {
        (void)dup3(fresh.Get(), present, O_CLOEXEC);
        return present;
    }
    const int fd = fresh.Release();
    log.fd.store(fd, std::memory_order_release);
    return fd;
}

// ---- Patience -------------------------------------------------------------------------------------

// What all threads together have waited, by seconds of the monotonic clock: of the real one, since how long
// a log is stuck does not depend on what time a simulation says it is.
class Patience {
public:
    // Reserves a slice, or what is left of it in the minute that ends now: milliseconds, 0 when none is
    // left.
    int Reserve()
    {
        const std::lock_guard guard(mMutex);
        const std::int64_t now = Milliseconds() / 1000;
        int waited = 0;
        for (const Bucket &bucket : mBuckets)
            if (bucket.second > now - kSeconds) waited += bucket.milliseconds;
        const int reserved = std::clamp(KSYSLOG_WAIT_MILLISECONDS - waited, 0, kSliceMilliseconds);
        Bucket &bucket = mBuckets[static_cast<std::size_t>(now % kSeconds)];
        if (bucket.second != now) bucket = {now, 0};
        bucket.milliseconds += reserved;
        return reserved;
    }

    // Gives back what was reserved and not waited.
    void GiveBack(int milliseconds)
    {
        const std::lock_guard guard(mMutex);
        Bucket &bucket = mBuckets[static_cast<std::size_t>(Milliseconds() / 1000 % kSeconds)];
        bucket.milliseconds = std::max(0, bucket.milliseconds - milliseconds);
    }

    static std::int64_t Milliseconds()
    {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        return std::int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1'000'000;
    }

private:
    static constexpr std::int64_t kSeconds = 61; // that any sixty seconds touch
    struct Bucket {
        std::int64_t second = -kSeconds;
        int milliseconds = 0;
    };

    std::mutex mMutex;
    std::array<Bucket, kSeconds> mBuckets;
};
Patience &patience = *new Patience;

// True when the log may have room again.
bool AwaitRoom(int fd)
{
    while (waits.load(std::memory_order_relaxed)) {
        const int reserved = patience.Reserve();
        if (reserved == 0) return false;
        const std::int64_t began = Patience::Milliseconds();
        pollfd room{.fd = fd, .events = POLLOUT, .revents = 0};
        Tell(KSyslogMoment::Waits);
        const bool ready = poll(&room, 1, reserved) > 0;
        Tell(KSyslogMoment::GoesOn);
        const std::int64_t took = Patience::Milliseconds() - began;
        if (took < reserved) patience.GiveBack(reserved - static_cast<int>(took));
        if (ready) return true;
    }
    return false;
}

// ---- Headers, and what was lost -------------------------------------------------------------------

// "<14>Mar  1 12:00:00 keld: " (priority user.info), rendered anew once a second for each thread.
std::string_view Header(const timeval &now)
{
    thread_local struct {
        std::time_t second = -1;
        std::size_t length = 0;
        char text[320];
    } header;
    if (header.second != now.tv_sec) {
        static constexpr const char *kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                  "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
        std::tm local;
        KTime_LocalTime(now.tv_sec, &local);
        const int length = std::snprintf(
            header.text, sizeof header.text, "<14>%s %2d %02d:%02d:%02d %.255s: ", kMonths[local.tm_mon],
            local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, program_invocation_short_name);
        header.length = static_cast<std::size_t>(length);
        header.second = now.tv_sec;
    }
    return {header.text, header.length};
}

// Says how many lines were lost. False when the log does not take this line either.
bool TellLost(const timeval &now)
{
    static std::mutex &telling = *new std::mutex;
    const std::unique_lock alone(telling, std::try_to_lock);
    if (!alone.owns_lock()) return true; // another thread tells
    const std::uint64_t all = lost.load(std::memory_order_relaxed);
    const std::uint64_t untold = all - told.load(std::memory_order_relaxed);
    if (untold == 0) return true;
    char text[400];
    const std::string_view header = Header(now);
    std::memcpy(text, header.data(), header.size());
    const int length =
        std::snprintf(text + header.size(), sizeof text - header.size(),
                      "%u lines were not taken by the system log.\n", static_cast<unsigned>(untold));
    if (!SendLine(text, header.size() + static_cast<std::size_t>(length))) return false;
    told.store(all, std::memory_order_relaxed);
    return true;
}

} // namespace

KSyslogLine::KSyslogLine(const timeval &now) : mNow(now)
{
    if (sink.load(std::memory_order_relaxed) != nullptr) return;
    Append(Header(now));
}

KSyslogLine::~KSyslogLine()
{
    if (mText != mFixed) std::free(mText);
}

void KSyslogLine::Append(std::string_view text)
{
    if (!Reserve(text.size())) return;
    std::memcpy(mText + mLength, text.data(), text.size());
    mLength += text.size();
}

void KSyslogLine::Append(std::uint64_t number)
{
    char digits[20];
    Append({digits, std::to_chars(digits, digits + sizeof digits, number).ptr});
}

void KSyslogLine::AppendFormatted(const char *format, va_list args)
{
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(mText + mLength, mSize - mLength, format, args);
    if (length >= 0 && static_cast<std::size_t>(length) < mSize - mLength)
        mLength += static_cast<std::size_t>(length);
    else if (length >= 0 && Reserve(static_cast<std::size_t>(length) + 1))
        mLength +=
            static_cast<std::size_t>(std::vsnprintf(mText + mLength, mSize - mLength, format, again));
    else
        mWhole = false;
    va_end(again);
}

void KSyslogLine::Send()
{
    if (const auto to = sink.load(std::memory_order_relaxed); to != nullptr) return to(mText, mLength);
    if (lost.load(std::memory_order_relaxed) == told.load(std::memory_order_relaxed) || TellLost(mNow))
        if (mWhole && SendLine(mText, mLength)) return;
    lost.fetch_add(1, std::memory_order_relaxed);
    Tell(KSyslogMoment::LosesLine);
}

// Room for so many bytes more.
bool KSyslogLine::Reserve(std::size_t bytes)
{
    if (bytes <= mSize - mLength) return mWhole;
    const std::size_t size = std::max(mSize * 2, mLength + bytes);
    auto *grown = static_cast<char *>(mText == mFixed ? std::malloc(size) : std::realloc(mText, size));
    if (grown == nullptr) return mWhole = false;
    if (mText == mFixed) std::memcpy(grown, mFixed, mLength);
    mText = grown;
    mSize = size;
    return mWhole;
}

void KSyslog_Open()
{
    if (sink.load(std::memory_order_relaxed) == nullptr) (void)OpenLog(-1);
}

void KSyslog_StopWaiting() { waits.store(false, std::memory_order_relaxed); }

std::uint64_t KSyslog_LostLines() { return lost.load(std::memory_order_relaxed); }

void KSyslog_SetObserver(void (*newObserver)(KSyslogMoment)) { observer.store(newObserver); }

void KSyslog_SetSink(void (*newSink)(const char *, std::size_t)) { sink.store(newSink); }
