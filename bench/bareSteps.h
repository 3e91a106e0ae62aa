// The steps of an observation's road, each as bare as it can be: what the daemon's own steps are measured
// against, one by one in steps.cpp and as a whole in floor.cpp.
//
// A bare step does everything that its place in the road needs on the observations of this benchmark
// (texts as arguments, "%s" as conversion) and nothing else. Nothing of the daemon or its libraries is
// used here but the layout of a record: a step that is slow there must not be slow here as well.
#ifndef BENCH_BARESTEPS_H
#define BENCH_BARESTEPS_H

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <kltlibs/kelrecord.h>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <syslog.h>
#include <time.h>

namespace Bare {

constexpr std::size_t kEntryBytes = 16;

// ---- A record ------------------------------------------------------------------------------------

struct Argument {
    std::uint32_t type, length;
    std::uint64_t offset;
};

inline Argument ArgumentAt(const void *area, std::uint32_t index)
{
    Argument argument;
    std::memcpy(&argument, static_cast<const char *>(area) + index * kEntryBytes, sizeof argument);
    return argument;
}

inline const char *TextAt(const void *area, std::uint32_t index)
{
    return static_cast<const char *>(area) + ArgumentAt(area, index).offset;
}

inline bool ValidId(const char *id, std::size_t length)
{
    static constexpr auto kAllowed = [] {
        std::array<bool, 256> allowed{};
        for (const char c :
             std::string_view("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789._-"))
            allowed[static_cast<unsigned char>(c)] = true;
        return allowed;
    }();
    for (std::size_t i = 0; i < length; ++i)
        if (!kAllowed[static_cast<unsigned char>(id[i])]) return false;
    return true;
}

inline bool Valid(const char *record, std::size_t available)
{
    if (available < KELRECORD_BYTES_MIN || std::memcmp(record + 8, "KEL1", 4) != 0) return false;
    const std::uint32_t count = KelRecord_ArgumentCount(record), total = KelRecord_TotalLength(record);
    const std::uint32_t message = KelRecord_Word(record, 20), area = KelRecord_Word(record, 24);
    const std::uint32_t idLength = KelRecord_Word(record, 28);
    if (total < KELRECORD_BYTES_MIN || total > available || count > KELRECORD_ARGUMENTS_MAX ||
        idLength < 2 || idLength > KELRECORD_ID_CHARS_MAX + 1 ||
        message != KELRECORD_HEADER_BYTES + idLength || area <= message || area > total ||
        record[message - 1] != '\0' || !ValidId(KelRecord_ID(record), idLength - 1) ||
        std::memchr(record + message, '\0', area - message) != record + area - 1 ||
        count > (total - area) / kEntryBytes)
        return false;
    for (std::uint32_t i = 0; i < count; ++i) {
        const Argument argument = ArgumentAt(record + area, i);
        if (argument.type != 6) continue;
        if (argument.length == 0 || argument.offset < count * kEntryBytes ||
            argument.offset > total - area || argument.length > total - area - argument.offset)
            return false;
        const char *text = record + area + argument.offset;
        if (std::memchr(text, '\0', argument.length) != text + argument.length - 1) return false;
    }
    return true;
}

// The text of a message with "%s" conversions, for the caller to free.
inline char *Message(const char *format, const void *area)
{
    const std::size_t length = std::strlen(format);
    std::size_t room = length + 1;
    for (std::uint32_t i = 0, at = 0; at + 1 < length; ++at)
        if (format[at] == '%') room += ArgumentAt(area, i++).length;
    char *text = static_cast<char *>(std::malloc(room)), *end = text;
    for (std::uint32_t i = 0; const char *percent = std::strchr(format, '%'); ++i) {
        const std::size_t argumentLength = ArgumentAt(area, i).length - 1;
        end = static_cast<char *>(mempcpy(end, format, static_cast<std::size_t>(percent - format)));
        end = static_cast<char *>(mempcpy(end, TextAt(area, i), argumentLength));
        format = percent + 2;
    }
    std::strcpy(end, format);
    return text;
}

// ---- The system log --------------------------------------------------------------------------------

// 26 characters: local time with milliseconds.
inline void LogPrefix(char *prefix, std::size_t size)
{
    timeval now;
    gettimeofday(&now, nullptr);
    std::tm local;
    localtime_r(&now.tv_sec, &local);
    const std::size_t length = std::strftime(prefix, size, "%Y-%m-%dT%H:%M:%S", &local);
    std::snprintf(prefix + length, size - length, ".%03dZ: ", static_cast<int>(now.tv_usec / 1000));
}

inline void LogTraceLine(const char *thread, std::uint64_t microseconds, const char *id,
                         const char *message)
{
    char prefix[32];
    LogPrefix(prefix, sizeof prefix);
    syslog(LOG_INFO, "%s[%s] %" PRIu64 "us: [%s] %s\n", prefix, thread, microseconds, id, message);
}

inline char *PutDigits(char *to, std::uint64_t value, int digitsMin)
{
    char digits[20];
    int count = 0;
    for (; value > 0 || count < digitsMin; value /= 10)
        digits[count++] = static_cast<char>('0' + value % 10);
    while (count > 0)
        *to++ = digits[--count];
    return to;
}

inline char *PutText(char *to, std::string_view text)
{
    return static_cast<char *>(mempcpy(to, text.data(), text.size()));
}

// The same lines on a socket of our own: header and prefix, which are rendered anew once a second, and the
// pieces of the line in one buffer.
inline void SendLogLine(std::initializer_list<std::string_view> pieces)
{
    static const int log = [] {
        const sockaddr_un address{AF_UNIX, "/dev/log"};
        const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        (void)connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof address);
        return fd;
    }();
    thread_local struct {
        std::time_t second = -1;
        std::size_t length = 0;
        char text[128];
    } prefix;
    timeval now;
    gettimeofday(&now, nullptr);
    if (prefix.second != now.tv_sec) {
        std::tm local;
        localtime_r(&now.tv_sec, &local);
        prefix.length = std::strftime(prefix.text, sizeof prefix.text,
                                      "<14>%b %e %T keld-floor: %Y-%m-%dT%H:%M:%S.000Z: ", &local);
        prefix.second = now.tv_sec;
    }
    char line[2048], *end = PutText(line, {prefix.text, prefix.length});
    PutDigits(end - std::strlen("000Z: "), static_cast<std::uint64_t>(now.tv_usec / 1000), 3);
    for (const std::string_view piece : pieces)
        end = PutText(end, piece);
    (void)send(log, line, static_cast<std::size_t>(end - line), MSG_NOSIGNAL);
}

inline void SendTraceLine(const char *thread, std::uint64_t microseconds, const char *id,
                          const char *message)
{
    char digits[20];
    const std::string_view time(digits,
                                static_cast<std::size_t>(PutDigits(digits, microseconds, 1) - digits));
    SendLogLine({"[", thread, "] ", time, "us: [", id, "] ", message, "\n"});
}

// ---- The trace service -----------------------------------------------------------------------------

// The last 128 KiB of whole lines.
class History {
public:
    void Append(std::string_view line)
    {
        const std::lock_guard lock(mMutex);
        while (mBytes + line.size() > mRing.size()) {
            const char *first = mRing.data() + mStart, *end = mRing.data() + mRing.size();
            const void *newline = std::memchr(first, '\n', static_cast<std::size_t>(end - first));
            const char *last = static_cast<const char *>(newline != nullptr ? newline : end - 1);
            const auto gone = static_cast<std::size_t>(last + 1 - first);
            mStart = (mStart + gone) % mRing.size();
            mBytes -= gone;
            if (newline == nullptr) continue; // the rest of the line is at the front of the ring
        }
        const std::size_t at = (mStart + mBytes) % mRing.size();
        const std::size_t before = std::min(line.size(), mRing.size() - at);
        std::memcpy(mRing.data() + at, line.data(), before);
        std::memcpy(mRing.data(), line.data() + before, line.size() - before);
        mBytes += line.size();
    }

private:
    std::mutex mMutex;
    std::array<char, 131072> mRing;
    std::size_t mStart = 0, mBytes = 0;
};

// One line of at most 2 KiB.
inline void Trace(History &history, std::string_view direction, std::uint64_t microseconds, const char *id,
                  const void *area, std::uint32_t count)
{
    char line[2048], *end = line;
    timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    end = PutDigits(end, static_cast<std::uint64_t>(now.tv_sec), 1);
    *end++ = '.';
    end = PutDigits(end, static_cast<std::uint64_t>(now.tv_nsec), 9);
    end = PutText(end, direction);
    end = PutDigits(end, microseconds, 1);
    *end++ = ',';
    end = PutText(end, id);
    *end++ = ',';
    for (std::uint32_t i = 0; i < count; ++i) {
        end = PutText(end, ",\"");
        for (const char *text = TextAt(area, i); *text != '\0'; ++text)
            if ((*end++ = *text) == '"') *end++ = '"';
        *end++ = '"';
    }
    *end++ = '\n';
    history.Append({line, static_cast<std::size_t>(end - line)});
}

// ---- Dispatching and looking up ----------------------------------------------------------------------

// What the daemon's 18 agents subscribe to.
constexpr int kAgents = 18;
struct Subscription {
    std::string_view prefix;
    int agent;
};
constexpr Subscription kSubscriptions[] = {
    {"kel.net.", 0},       {"kel.scsi.", 1},     {"kel.storage.apd.", 2}, {"kel.iscsi.", 3},
    {"kel.dsfs.", 4},      {"kel.user.", 5},     {"kel.hardware.", 6},    {"kel.cpu.", 7},
    {"kel.uw.", 8},        {"kel.swap.", 9},     {"kel.vm.", 10},         {"kel.user.", 11},
    {"kel.external.", 11}, {"kel.migrate.", 12}, {"kel.pageretire.", 13}, {"kel.quillfs.", 14},
    {"kel.vfat.", 15},     {"kel.clock.", 16},   {"kel.zorn.", 17}};

// One bit for each agent that is to have an observation.
inline std::uint32_t AgentsFor(const char *id)
{
    const std::string_view text = id;
    std::uint32_t agents = 0;
    for (const Subscription &each : kSubscriptions)
        if (text.starts_with(each.prefix)) agents |= 1U << each.agent;
    return agents;
}

using Handler = void (*)(char *record);
using Table = std::map<std::string, Handler, std::less<>>;

// As large as the network correlator's, to which the load goes: 42 observations.
constexpr int kTableRows = 42;
inline Table MakeTable(const char *handledId, Handler handler)
{
    Table table{{handledId, handler}};
    for (int i = 1; i < kTableRows; ++i) {
        char id[64];
        std::snprintf(id, sizeof id, "kel.net.part%d.of.condition.%02d", i % 7, i);
        table.emplace(id, handler);
    }
    return table;
}

inline Handler LookUp(const Table &table, const char *id)
{
    const auto found = table.find(std::string_view(id));
    return found != table.end() ? found->second : nullptr;
}

inline Handler LookUpInCopy(const Table &table, const char *id)
{
    const Table copy = table;
    return LookUp(copy, id);
}

} // namespace Bare

#endif
