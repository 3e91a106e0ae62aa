// Event posting.
//
// KeldPostEvent runs on the posting agent's thread, from the packed arguments to the closed connection or
// the retry list (keldPlingDelivery).

#include "keldPling.h"

#include "keldFate.h"
#include "keldJournal.h"
#include "keldLog.h"
#include "keldOwn.h"
#include "keldPlingDelivery.h"
#include "keldStatus.h"
#include "keldTrace.h"
#include "keldUtil.h"

#include <kltlibs/kif.h>
#include <kltlibs/msgfmt.h>
#include <kltlibs/plingrecord.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

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

constexpr std::size_t kMarkerChars = std::string_view("@&!*@*@(").size();
constexpr std::array kClassPrefixes{"nox.problem.", "nox.audit.", "nox.clear."}; // by KeldEventClass

std::array<std::byte, KIF_SYSTEM_UUID_BYTES> gSystemUuid{}; // fixed after start

// Fixed window; races between agents are accepted.
std::atomic<std::uint64_t> gRateWindowStart{0}; // seconds, 0 before the first event
std::atomic<std::int32_t> gRateCount{0};

// Gives one event its number, and tells the journal of it.
class EventJournal {
public:
    EventJournal(const char *prefix, std::string_view remainder) : mPrefix(prefix), mRemainder(remainder) {}

    std::uint64_t Event() const { return mEvent; }
    void Out(const std::byte *record, std::size_t length) const;
    void NotMade(JournalDelivery why) const; // nothing of it remains

private:
    const JournalOut &Entry(const std::byte *record, std::size_t length) const;

    const std::uint64_t mEvent = KeldJournalNextEvent();
    const KeldCause mCause;
    const char *mPrefix;
    const std::string_view mRemainder;
};

// The buffer in which a record is built. A thread keeps it for its next event, unless it had to grow.
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

void PutWord(std::byte *record, std::size_t at, std::size_t value)
{
    const auto word = static_cast<std::uint32_t>(value);
    std::memcpy(record + at, &word, sizeof word);
}

} // namespace

void KeldPlingInit()
{
    KeldPlingDeliveryInit();
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
        return KeldPlingTellDelivery(journal.Event(), JournalDelivery::Delivered, 1);
    KeldLog("An event (%s) could not be sent immediately to carad; queueing for retry.",
            PlingRecord_TypeId(record));
    KeldPlingQueue(journal.Event(), defer == 0 ? 1 : 0, record, total);
}

void EventJournal::Out(const std::byte *record, std::size_t length) const
{
    KeldJournalTell([&]() -> const JournalOut & { return Entry(record, length); });
}

void EventJournal::NotMade(JournalDelivery why) const
{
    KeldStatusEvent(why);
    KeldJournalTellWithNext([&]() -> const JournalOut & { return Entry(nullptr, 0); });
    KeldJournalTellWithNext([&] { return JournalDeliveryEntry{mEvent, why, 0}; });
    if (!mCause.fateFollows) KeldJournalHandOver();
}

// Good until the thread's next one, which needs no memory anew.
const JournalOut &EventJournal::Entry(const std::byte *record, std::size_t length) const
{
    thread_local std::string type;
    thread_local JournalOut out;
    type.assign(mPrefix).append(mRemainder);
    out.event = mEvent;
    out.origins.assign(mCause.named.begin(), mCause.named.end());
    out.unnamed = mCause.unnamed;
    out.type = type;
    out.record.bytes = {reinterpret_cast<const char *>(record), length};
    return out;
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
    if (start != 0 &&
        now - start < kRateWindowSeconds) { // unsigned: a clock set back counts as a long time
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
// KEPT: five attempts, the fifth in 18736 bytes; the buffer is then doubled and not tried again. A sixth
// attempt would send larger records than a receiver has ever got.
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
