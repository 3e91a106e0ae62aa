#include "keldDispatch.h"

#include "keldFate.h"
#include "keldJournal.h"
#include "keldLog.h"
#include "keldMutex.h"
#include "keldPling.h"
#include "keldSignal.h"
#include "keldTrace.h"

#include <kltlibs/kelrecord.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <string_view>

namespace {

// A plain mutex whose failures are panics.
//
// KEPT: their text is errno's, not that of the call's own result.
class KELD_ANNOTATE(capability("mutex")) StreamLock {
public:
    int Make() { return pthread_mutex_init(&mMutex, nullptr); } // 0 or an errno value; before any use
    void Acquire() KELD_ANNOTATE(acquire_capability())
    {
        if (pthread_mutex_lock(&mMutex) != 0)
            Panic("Failed to acquire stream lock: %s\n", std::strerror(errno));
    }
    bool TryAcquire() KELD_ANNOTATE(try_acquire_capability(true))
    {
        return pthread_mutex_trylock(&mMutex) == 0;
    }
    void Release() KELD_ANNOTATE(release_capability())
    {
        if (pthread_mutex_unlock(&mMutex) != 0)
            Panic("Failed to release stream lock: %s\n", std::strerror(errno));
    }

private:
    pthread_mutex_t mMutex;
};

// It guards the list, and the descriptors of every stream while a batch is dispatched.
struct Streams {
    StreamLock lock;
    std::list<std::unique_ptr<KeldStream>> list GUARDED_BY(lock); // in order of registration
    std::uint16_t registered GUARDED_BY(lock) = 0;                // so far
    std::uint64_t observations = 0;                               // so far; main thread
};
Streams &streams = *new Streams; // agents that were cancelled leave theirs behind

// Holds the stream lock to the end of its scope.
class KELD_ANNOTATE(scoped_lockable) StreamHold {
public:
    StreamHold() KELD_ANNOTATE(acquire_capability(streams.lock)) { streams.lock.Acquire(); }
    struct Adopt {};
    explicit StreamHold(Adopt) REQUIRES(streams.lock) {} // the caller has acquired it
    ~StreamHold() KELD_ANNOTATE(release_capability()) { streams.lock.Release(); }
    StreamHold(const StreamHold &) = delete;
    StreamHold &operator=(const StreamHold &) = delete;
};

void TellIn(std::int32_t channel, const std::byte *buffer, std::size_t byteCount) REQUIRES(streams.lock);
void TellLost(const KeldStream &stream, KeldFate fate);
int WriteRecord(int fd, const std::byte *record, std::size_t length);
int ReadWanted(KeldStream *stream);
void Discard(int fd);

constexpr int kDrainMilliseconds = 10; // how long a draining agent waits before it tries the lock again

} // namespace

// ---- The main thread's side ------------------------------------------------------------------------

int KeldDispatchInit()
{
    if (const int error = streams.lock.Make(); error != 0) return error;
    const StreamHold hold;
    streams.list.clear();
    streams.registered = 0;
    return 0;
}

int KeldDispatch(std::int32_t channel, const std::byte *buffer, std::size_t byteCount)
{
    const StreamHold hold;
    if (KeldJournalHeard()) TellIn(channel, buffer, byteCount);
    for (std::size_t at = 0; at < byteCount;) {
        const std::byte *record = buffer + at;
        const std::size_t length = KelRecord_TotalLength(record);
        const std::string_view id = KelRecord_ID(record);
        KeldTraceIn(record);
        ++streams.observations;
        for (const auto &stream : streams.list) {
            if (!KeldSubscriptionMatches(stream->subscription, id)) continue;
            const int error = WriteRecord(stream->writeFd.Get(), record, length);
            if (error == ECANCELED) return 0; // leaving: nobody is handed the rest
            if (error != 0) return error;
            ++stream->queued;
        }
        at += length;
    }
    return 0;
}

bool KeldSubscriptionMatches(const KeldSubscription &subscription, std::string_view id)
{
    for (std::int32_t i = 0; i < subscription.prefixCount; ++i) {
        const std::string &prefix = subscription.prefixes[static_cast<std::size_t>(i)];
        if (id.size() > prefix.size() && id[prefix.size()] == '.' && id.starts_with(prefix)) return true;
    }
    for (std::int32_t i = 0; i < subscription.exactIdCount; ++i)
        if (id == subscription.exactIds[static_cast<std::size_t>(i)]) return true;
    return false;
}

std::size_t KeldDispatchStreamCount()
{
    const StreamHold hold;
    return streams.list.size();
}

std::uint64_t KeldDispatchWaiting()
{
    const StreamHold hold;
    std::uint64_t waiting = 0;
    for (const auto &stream : streams.list)
        waiting += stream->queued - stream->taken;
    return waiting;
}

std::uint64_t KeldDispatchCount() { return streams.observations; }

void KeldDispatchTellLost()
{
    const StreamHold hold;
    for (const auto &stream : streams.list)
        TellLost(*stream, KeldFate::Lost);
}

namespace {

// Tells the whole batch before any agent gets anything of it: else a fate could be told before its
// observation.
void TellIn(std::int32_t channel, const std::byte *buffer, std::size_t byteCount)
{
    if (KeldJournalBeginDue())
        KeldJournalTell([]() REQUIRES(streams.lock) {
            JournalBegin begin{streams.observations, KeldPlingCount(), {}};
            for (const auto &stream : streams.list)
                begin.queued.push_back({stream->number, stream->queued});
            return begin;
        });
    for (const auto &stream : streams.list)
        stream->told = stream->queued;
    JournalIn in{.observation = streams.observations, .channel = channel, .to = {}, .record = {}};
    for (std::size_t at = 0; at < byteCount; at += in.record.bytes.size()) {
        ++in.observation;
        in.record.bytes = {reinterpret_cast<const char *>(buffer + at), KelRecord_TotalLength(buffer + at)};
        in.to.clear();
        for (const auto &stream : streams.list)
            if (KeldSubscriptionMatches(stream->subscription, KelRecord_ID(buffer + at)))
                in.to.push_back({stream->number, ++stream->told});
        KeldJournalTell([&]() -> const JournalIn & { return in; });
    }
}

void TellLost(const KeldStream &stream, KeldFate fate)
{
    const std::uint64_t last = std::max(stream.queued, stream.told);
    if (stream.taken == last) return;
    KeldJournalTell([&] { return JournalLost{stream.number, fate, stream.taken, last}; });
}

// 0, an errno value, or ECANCELED when the exit flag was set while the pipe was full. Never leaves half
// a record behind.
int WriteRecord(int fd, const std::byte *record, std::size_t length)
{
    for (std::size_t written = 0; written < length;) {
        const ssize_t count = write(fd, record + written, length - written);
        if (count >= 0) {
            written += static_cast<std::size_t>(count);
            continue;
        }
        if (errno != EAGAIN) return errno;
        pollfd full{.fd = fd, .events = POLLOUT, .revents = 0};
        if (!KeldExitRequested()) {
            if (KeldPoll(&full, 1) < 0 && errno != EINTR) return errno;
        } else if (written == 0) {
            return ECANCELED;
        } else {
            // Half a record could leave its agent reading for ever; once nothing waits for the
            // receiver any more, the agent is soon here.
            KeldSetStopping();
            (void)poll(&full, 1, -1);
        }
    }
    return 0;
}

} // namespace

// ---- The agents' side -------------------------------------------------------------------------------

int KeldSubscriptionAddDomain(KeldSubscription *subscription, const std::string &domain)
{
    if (subscription->prefixCount == kKeldSubscriptionMax) return 1;
    subscription->prefixes[static_cast<std::size_t>(subscription->prefixCount++)] = "kel." + domain;
    return 0;
}

int KeldSubscriptionAddExactId(KeldSubscription *subscription, const std::string &id)
{
    if (subscription->exactIdCount == kKeldSubscriptionMax) return 1;
    subscription->exactIds[static_cast<std::size_t>(subscription->exactIdCount++)] = id;
    return 0;
}

int KeldStreamRegister(KeldAgentName owner, const KeldSubscription &subscription, KeldStream **stream)
try {
    auto made = std::make_unique<KeldStream>();
    int ends[2];
    if (pipe(ends) != 0) return 2;
    made->readFd = UniqueFd(ends[0]);
    made->writeFd = UniqueFd(ends[1]);
    // KEPT: F_SETFD with this value leaves the read end blocking; the reader polls before every read
    // and asks only for what it still wants. The write end does not block: see WriteRecord.
    if (fcntl(ends[0], F_SETFD, 0x800) != 0 || fcntl(ends[1], F_SETFL, O_NONBLOCK) != 0) return 2;
    made->subscription = subscription;
    made->owner = std::move(owner);
    *stream = made.get();
    const StreamHold hold;
    made->number = streams.registered++;
    KeldJournalAgentBegins(made->number, made->owner);
    streams.list.push_back(std::move(made));
    return 0;
} catch (const std::bad_alloc &) {
    return 1;
}

int KeldStreamUnregister(KeldStream *stream)
{
    while (!streams.lock.TryAcquire())
        Discard(stream->readFd.Get());
    const StreamHold hold{StreamHold::Adopt{}};
    TellLost(*stream, KeldFate::AgentEnded);
    KeldJournalAgentEnds(stream->number);
    const bool closed = stream->readFd.Close() == 0 && stream->writeFd.Close() == 0;
    std::erase_if(streams.list, [stream](const auto &each) { return each.get() == stream; });
    return closed ? 0 : 2;
}

int KeldStreamReadKel(KeldStream *stream, Kel **kel, bool *complete)
{
    *complete = false;
    if (stream->record == nullptr) {
        stream->record.reset(static_cast<std::byte *>(std::malloc(KELRECORD_HEADER_BYTES)));
        if (stream->record == nullptr) return 2;
        stream->filled = 0;
        stream->wanted = KELRECORD_HEADER_BYTES;
    }
    if (stream->filled < KELRECORD_HEADER_BYTES) {
        const int error = ReadWanted(stream);
        if (error != 0) return error == EAGAIN ? 0 : 2;
    }
    const std::uint32_t total = KelRecord_TotalLength(stream->record.get());
    if (stream->filled == KELRECORD_HEADER_BYTES) {
        auto *grown = static_cast<std::byte *>(std::realloc(stream->record.get(), total));
        if (grown == nullptr) return 2;
        (void)stream->record.release();
        stream->record.reset(grown);
        stream->wanted = total - KELRECORD_HEADER_BYTES;
    }
    const int error = ReadWanted(stream);
    if (error != 0) return error == EAGAIN ? 0 : 2;

    if (Kel_MakeKel(stream->record.get(), total, kel) != 0) return 1; // the bytes stay the stream's
    (void)stream->record.release();
    stream->filled = stream->wanted = 0;
    stream->taken.store(stream->taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    *complete = true;
    return 0;
}

namespace {

// One read of exactly what is wanted: 0 when all of it came, EAGAIN when less did, or an errno value.
int ReadWanted(KeldStream *stream)
{
    const ssize_t count = read(stream->readFd.Get(), stream->record.get() + stream->filled, stream->wanted);
    if (count == 0)
        Panic("EOF trying to read %d bytes from stream %p\n", static_cast<int>(stream->wanted),
              static_cast<void *>(stream));
    if (count < 0) return errno;
    stream->filled += static_cast<std::uint32_t>(count);
    stream->wanted -= static_cast<std::uint32_t>(count);
    return stream->wanted == 0 ? 0 : EAGAIN;
}

// Throws away what waits, if anything comes within a moment.
void Discard(int fd)
{
    std::byte scratch[4096];
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, kDrainMilliseconds) > 0) (void)!read(fd, scratch, sizeof scratch);
}

} // namespace
