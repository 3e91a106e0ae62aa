// Event posting.
//
// KeldPostEvent runs on the posting agent's thread from the packed arguments to the closed connection;
// what cannot be sent waits on the retry list for the alarm thread. Only the list has a lock.

#include "keldPling.h"

#include "keldAlarm.h"
#include "keldFate.h"
#include "keldJournal.h"
#include "keldLog.h"
#include "keldMutex.h"
#include "keldOwn.h"
#include "keldSignal.h"
#include "keldStatus.h"
#include "keldTrace.h"
#include "keldUtil.h"

#include <kltlibs/kif.h>
#include <kltlibs/ktime.h>
#include <kltlibs/msgfmt.h>
#include <kltlibs/plingrecord.h>
#include <kltlibs/rundir.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <new>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <utility>
#include <vector>

namespace {

constexpr std::size_t kIdAt = PLINGRECORD_HEADER_BYTES;
// KEPT: the total length counts them; the receiver relies on it.
constexpr std::size_t kTrailingBytes = PLINGRECORD_TRAILER_BYTES;
constexpr std::size_t kUuidTextAt = 16; // behind the raw bytes of KIF_NODE_system_systemUuid
static_assert(kUuidTextAt + PLINGRECORD_IDENTITY_BYTES <= KIF_SYSTEM_UUID_BYTES);
constexpr std::size_t kFirstBufferBytes = 1171;
constexpr int kPackAttemptsMax = 5;

constexpr std::uint64_t kRateWindowSeconds = 60;
constexpr std::int32_t kRateEventsMax = 1000;

constexpr std::uint32_t kRetrySeconds = 180;
constexpr int kRetryFailuresMax = 5;

constexpr suseconds_t kSendWaitMicroseconds = 200'000; // how often a blocked send looks whether to leave

constexpr std::size_t kMarkerChars = std::string_view("@&!*@*@(").size();
constexpr std::array kClassPrefixes{"nox.problem.", "nox.audit.", "nox.clear."}; // by KeldEventClass

std::array<std::byte, KIF_SYSTEM_UUID_BYTES> gSystemUuid{}; // fixed after start
int gRetryAlarm = -1;                                       // fixed after start

// Fixed window; races between agents are accepted.
std::atomic<std::uint64_t> gRateWindowStart{0}; // seconds, 0 before the first event
std::atomic<std::int32_t> gRateCount{0};

std::atomic<std::uint64_t> gEvents{0}; // so far

struct RetryEntry {
    std::uint64_t event = 0; // its number
    unsigned tries = 0;      // so far
    int failures = 0;        // of re-sends
    std::vector<std::byte> record;
};
struct Retries {
    KeldMutex retryListMutex;
    std::list<RetryEntry> list GUARDED_BY(retryListMutex);
    bool alarmArmed GUARDED_BY(retryListMutex) = false;
};
Retries &retries = *new Retries; // the alarm thread outlives main

// What the journal is told of one event, which it gives its number.
class EventJournal {
public:
    EventJournal(const char *prefix, std::string_view remainder) : mPrefix(prefix), mRemainder(remainder) {}

    std::uint64_t Event() const { return mEvent; }
    void Out(const std::byte *record, std::size_t length) const;
    void NotMade(JournalDelivery why) const; // nothing of it remains

private:
    const std::uint64_t mEvent = gEvents.fetch_add(1, std::memory_order_relaxed) + 1;
    const KeldCause mCause;
    const char *mPrefix;
    const std::string_view mRemainder;
};

void TellDelivery(std::uint64_t event, JournalDelivery state, unsigned tries)
{
    KeldStatusEvent(state);
    KeldJournalTell([=] { return JournalDeliveryEntry{event, state, tries}; });
}

// What a record is built in: memory that each thread keeps from one event to the next, at its first size.
class EventBuffer {
public:
    EventBuffer();
    ~EventBuffer();
    EventBuffer(const EventBuffer &) = delete;
    EventBuffer &operator=(const EventBuffer &) = delete;

    std::byte *Get() const { return mBytes.get(); } // zeroed at first; null without memory
    std::size_t Size() const { return mSize; }
    bool Double(); // false without memory, the bytes as before

private:
    static thread_local MallocPtr<std::byte> kept;
    MallocPtr<std::byte> mBytes = std::move(kept);
    std::size_t mSize = kFirstBufferBytes;
};

void Post(int defer, const char *prefix, std::string_view remainder, const char *format, va_list args);
bool WithinRate(const char *prefix, std::string_view remainder);
int PackArguments(EventBuffer &buffer, std::size_t total, const char *format, va_list args,
                  std::size_t *used, std::uint32_t *count);
bool AwaitReceiver(int fd, int error);

void PutWord(std::byte *record, std::size_t at, std::size_t value)
{
    const auto word = static_cast<std::uint32_t>(value);
    std::memcpy(record + at, &word, sizeof word);
}

} // namespace

void KeldPlingInit()
{
    gRetryAlarm = KeldAlarmRegister(KeldPlingAlarmHandler);
    KeldStatusLimit(0, 0, kRateEventsMax);
    if (KIF_Get(KIF_NODE_system_systemUuid, nullptr, gSystemUuid.data(), gSystemUuid.size()) != KNX_OK)
        gSystemUuid.fill(std::byte{0});
}

void KeldPostEvent(int defer, KeldEventClass cls, const char *format, ...)
{
    const auto index = static_cast<std::size_t>(cls);
    if (index >= kClassPrefixes.size()) KeldNotReached("apps/keld/keldPling", 608);
    const char *prefix = kClassPrefixes[index];
    // KEPT: what is skipped is not looked at: the class, not the text, decides the prefix.
    const char *remainder = format + kMarkerChars + std::strlen(prefix);
    const char *end = std::strchr(remainder, ')');
    va_list args;
    va_start(args, format);
    Post(static_cast<unsigned char>(defer), prefix, {remainder, end}, end + 1, args);
    va_end(args);
}

void Keld_PostProblem(const char *suffix, const char *format, ...)
{
    KeldLog("Using discouraged \"Keld_PostProblem\" interface for pling: %s", suffix);
    va_list args;
    va_start(args, format);
    Post(0, kClassPrefixes[0], suffix, format, args);
    va_end(args);
}

namespace {

// One event from its arguments to the receiver or the retry list; nothing of it remains when it is one
// too many, or cannot be packed.
void Post(int defer, const char *prefix, std::string_view remainder, const char *format, va_list args)
{
    const EventJournal journal(prefix, remainder);
    EventBuffer buffer;
    if (buffer.Get() == nullptr) {
        KeldLog("Failed to allocate %zu bytes for prob buffer.\n", kFirstBufferBytes);
        return journal.NotMade(JournalDelivery::NoMemory);
    }
    if (!WithinRate(prefix, remainder)) return journal.NotMade(JournalDelivery::Limited);
    const std::size_t prefixLength = std::strlen(prefix);
    const std::size_t idLength = prefixLength + remainder.size() + 1;
    if (idLength > PLINGRECORD_TYPE_ID_BYTES_MAX) return journal.NotMade(JournalDelivery::IdTooLong);

    std::byte *record = buffer.Get();
    PutWord(record, PLINGRECORD_TYPE_ID_LENGTH_AT, idLength);
    std::memcpy(record + kIdAt, prefix, prefixLength);
    std::memcpy(record + kIdAt + prefixLength, remainder.data(), remainder.size());
    std::memcpy(record + PLINGRECORD_IDENTITY_AT, gSystemUuid.data() + kUuidTextAt,
                PLINGRECORD_IDENTITY_BYTES);
    (void)KNX_StampEvent(record);

    std::size_t total = kIdAt + idLength + kTrailingBytes;
    std::size_t used = 0;
    std::uint32_t count = 0;
    const int error = PackArguments(buffer, total, format, args, &used, &count);
    if (error != 0)
        return journal.NotMade(error == ENOMEM ? JournalDelivery::NoMemory
                                               : JournalDelivery::ArgumentsTooLarge);
    record = buffer.Get();

    std::byte *area = record + kIdAt + idLength;
    char *text = nullptr;
    (void)MsgFmt_Asprintf(&text, nullptr, format, area, count, nullptr);
    const MessageText message(text);
    KeldLogTraceLine(PlingRecord_TypeId(record), message.get(), PlingRecord_Timestamp(record));

    MsgFmt_SwizzleArgs(area, count);
    total += used;
    PutWord(record, PLINGRECORD_ARGUMENT_COUNT_AT, count);
    PutWord(record, PLINGRECORD_TOTAL_LENGTH_AT, total);
    KeldTraceOut(record);
    journal.Out(record, total);

    if (defer == 0 && KeldPlingSend(record, total) == 0)
        return TellDelivery(journal.Event(), JournalDelivery::Delivered, 1);
    KeldLog("An event (%s) could not be sent immediately to carad; queueing for retry.",
            PlingRecord_TypeId(record));
    KeldPlingQueue(journal.Event(), defer == 0 ? 1 : 0, record, total);
}

void EventJournal::Out(const std::byte *record, std::size_t length) const
{
    std::string type; // lasts until the entry is written
    KeldJournalTell([&] {
        type.append(mPrefix).append(mRemainder);
        return JournalOut{mEvent,
                          {mCause.named.begin(), mCause.named.end()},
                          mCause.unnamed,
                          type,
                          {{reinterpret_cast<const char *>(record), length}}};
    });
}

void EventJournal::NotMade(JournalDelivery why) const
{
    Out(nullptr, 0);
    TellDelivery(mEvent, why, 0);
}

thread_local MallocPtr<std::byte> EventBuffer::kept;

EventBuffer::EventBuffer()
{
    if (mBytes == nullptr) mBytes.reset(static_cast<std::byte *>(std::malloc(mSize)));
    if (mBytes != nullptr) std::memset(mBytes.get(), 0, mSize);
}

EventBuffer::~EventBuffer()
{
    if (mSize == kFirstBufferBytes) kept = std::move(mBytes);
}

bool EventBuffer::Double()
{
    mSize *= 2;
    auto *grown = static_cast<std::byte *>(std::realloc(mBytes.get(), mSize));
    if (grown == nullptr) return false;
    (void)mBytes.release();
    mBytes.reset(grown);
    return true;
}

// Counts the event against its window; an event too many is reported and must be dropped.
bool WithinRate(const char *prefix, std::string_view remainder)
{
    const std::uint64_t now = KeldNowSeconds();
    const std::uint64_t start = gRateWindowStart.load(std::memory_order_relaxed);
    if (start != 0 && now - start < kRateWindowSeconds) { // unsigned: set back counts as a long time
        const std::int32_t count = gRateCount.fetch_add(1, std::memory_order_relaxed) + 1;
        KeldStatusLimit(start, static_cast<std::uint32_t>(count), kRateEventsMax);
        if (count <= kRateEventsMax) return true;
        KeldLog("Event rate limit reached. Dropping pling: %s%.*s\n", prefix,
                static_cast<int>(remainder.size()), remainder.data());
        return false;
    }
    gRateCount.store(1, std::memory_order_relaxed);
    gRateWindowStart.store(now, std::memory_order_relaxed);
    KeldStatusLimit(now, 1, kRateEventsMax);
    return true;
}

// Packs behind the header, in a buffer that doubles as needed: 0, or an errno value when the event is to be
// dropped.
//
// KEPT: five attempts, the fifth in 18736 bytes; the buffer is doubled once more and never tried.
int PackArguments(EventBuffer &buffer, std::size_t total, const char *format, va_list args,
                  std::size_t *used, std::uint32_t *count)
{
    for (int attempt = 0; attempt < kPackAttemptsMax; ++attempt) {
        va_list copy;
        va_copy(copy, args);
        // The area starts where the 4 trailing bytes will move on from: they stay zero behind it.
        std::byte *area = buffer.Get() + total - kTrailingBytes;
        const int error = MsgFmt_GetArgsWithBuf(format, copy, area, buffer.Size() - total, used, count);
        va_end(copy);
        if (error == 0) {
            std::memset(area + *used, 0, kTrailingBytes);
            return 0;
        }
        if (error != ENOSPC) return error;
        if (!buffer.Double()) {
            KeldLog("Failed to allocate %zu bytes for prob buffer.", buffer.Size());
            return ENOMEM;
        }
    }
    return ENOSPC;
}

} // namespace

int KeldPlingSend(const void *record, std::size_t length)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    static_assert(sizeof address == 110);
    if (KltRunDir_Path("carad-pling.sock", address.sun_path, sizeof address.sun_path) != 0) return -1;
    const UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (fd.Get() < 0) return -1;
    const KeldStatusScope waits(KeldStanding::Receiver);
    while (connect(fd.Get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        if (!AwaitReceiver(fd.Get(), errno)) return -1;
    for (std::size_t sent = 0; sent < length;) {
        const ssize_t count =
            send(fd.Get(), static_cast<const std::byte *>(record) + sent, length - sent, MSG_NOSIGNAL);
        if (count >= 0)
            sent += static_cast<std::size_t>(count);
        else if (!AwaitReceiver(fd.Get(), errno))
            return -1;
    }
    return 0;
}

namespace {

// True when the call that failed is to be made again: the receiver has no room yet, or the daemon was
// stopped and continued while it waited. From now on the socket waits for the receiver, a moment at a time.
// An event of the daemon's last moments is offered once, and waits for nobody.
bool AwaitReceiver(int fd, int error)
{
    if ((error != EAGAIN && error != EINTR) || KeldStopping()) return false;
    const timeval wait{.tv_sec = 0, .tv_usec = kSendWaitMicroseconds};
    (void)setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &wait, sizeof wait);
    (void)fcntl(fd, F_SETFL, 0);
    return true;
}

} // namespace

void KeldPlingQueue(std::uint64_t event, unsigned tries, const void *record, std::size_t length)
try {
    const auto *bytes = static_cast<const std::byte *>(record);
    std::list<RetryEntry> entry(1);
    entry.front().event = event;
    entry.front().tries = tries;
    entry.front().record.assign(bytes, bytes + length);
    TellDelivery(event, JournalDelivery::Waiting, tries); // before the alarm thread can have delivered it
    KeldLock lock(retries.retryListMutex);
    retries.list.splice(retries.list.end(), entry);
    KeldStatusEventsWaiting(retries.list.size());
    if (retries.alarmArmed) return; // an armed alarm is not moved
    retries.alarmArmed = true;
    (void)KeldAlarmSet(gRetryAlarm, kKeldAlarmOneShot, kRetrySeconds);
} catch (const std::bad_alloc &) {
    TellDelivery(event, JournalDelivery::NoMemory, tries);
}

std::uint64_t KeldPlingCount() { return gEvents.load(std::memory_order_relaxed); }

std::size_t KeldPlingWaiting()
{
    const KeldLock lock(retries.retryListMutex);
    return retries.list.size();
}

void KeldPlingAlarmHandler()
{
    const KeldStatusScope retrying(KeldStanding::Retries);
    KeldLock lock(retries.retryListMutex);
    for (auto entry = retries.list.begin(); entry != retries.list.end() && !KeldStopping();) {
        const char *id = PlingRecord_TypeId(entry->record.data());
        const bool sent = KeldPlingSend(entry->record.data(), entry->record.size()) == 0;
        if (!sent && KeldStopping()) break;
        if (!sent) ++entry->failures;
        ++entry->tries;
        const int attempts = entry->failures + 1; // the first one included
        bool keep = false;
        if (entry->failures >= kRetryFailuresMax) {
            KeldLog("Abandoned event (%s) after %d failures.\n", id, attempts);
            TellDelivery(entry->event, JournalDelivery::Abandoned, entry->tries);
        } else if (sent) {
            KeldLog("Successfully sent event (%s) after %d failure%s.\n", id, attempts,
                    entry->failures == 0 ? "" : "s");
            TellDelivery(entry->event, JournalDelivery::Delivered, entry->tries);
        } else {
            KeldLog("Failed to send event (%s); %d failures so far.\n", id, attempts);
            TellDelivery(entry->event, JournalDelivery::Waiting, entry->tries);
            keep = true;
        }
        entry = keep ? std::next(entry) : retries.list.erase(entry);
    }
    KeldStatusEventsWaiting(retries.list.size());
    retries.alarmArmed = !retries.list.empty();
    if (retries.alarmArmed) (void)KeldAlarmSet(gRetryAlarm, kKeldAlarmOneShot, kRetrySeconds);
}

void KeldPlingTellLost()
{
    const KeldLock lock(retries.retryListMutex);
    for (const RetryEntry &entry : retries.list)
        TellDelivery(entry.event, JournalDelivery::LostAtExit, entry.tries);
}
