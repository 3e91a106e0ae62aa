#include "keldDispatch.h"

#include "keldFate.h"
#include "keldJournal.h"
#include "keldLog.h"
#include "keldMutex.h"
#include "keldSignal.h"
#include "keldStatus.h"
#include "keldTrace.h"

#include <kltlibs/kelrecord.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <memory>
#include <new>
#include <poll.h>
#include <pthread.h>
#include <string_view>
#include <sys/uio.h>
#include <unistd.h>
#include <utility>

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

// The lock guards the list, and the descriptors of every stream while a batch is dispatched.
struct Streams {
    StreamLock lock;
    std::list<std::unique_ptr<KeldStream>> list GUARDED_BY(lock); // in order of registration
    std::uint16_t registered GUARDED_BY(lock) = 0;                // so far
    std::uint64_t observations = 0;                               // so far; main thread
    JournalIn told; // the last one; kept for its list's memory; main thread
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

struct Batch {
    const std::byte *bytes;
    std::size_t size;
};
std::string_view IdOf(const std::byte *record)
{
    return {KelRecord_ID(record), KelRecord_Word(record, KELRECORD_ID_LENGTH_AT) - std::size_t{1}};
}
void TellBegin() REQUIRES(streams.lock);
void TellIn(std::int32_t channel, const Batch &batch) REQUIRES(streams.lock);
void TellLost(const KeldStream &stream, KeldFate fate);
int WriteWanted(KeldStream &stream, const Batch &batch);
int WriteRest(KeldStream &stream, Batch batch);
void Discard(int fd);

constexpr int kPiecesMax = 64; // of a batch, with records between them that the stream does not want

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
    const Batch batch{buffer, byteCount};
    if (KeldJournalHeard()) TellIn(channel, batch);
    std::uint32_t initials = 0; // of the batch's IDs
    for (std::size_t at = 0; at < byteCount; at += KelRecord_TotalLength(buffer + at)) {
        KeldTraceIn(buffer + at);
        initials |= KeldInitial(IdOf(buffer + at));
        ++streams.observations;
        KeldStatusObservation(static_cast<std::size_t>(channel), KelRecord_TotalLength(buffer + at));
    }
    bool someAreFull = false;
    for (const auto &stream : streams.list) {
        stream->place = byteCount;
        if ((stream->subscription.initials & initials) == 0) continue;
        stream->place = stream->begun = 0;
        const int error = WriteWanted(*stream, batch);
        if (error != 0 && error != EAGAIN) return error;
        someAreFull |= error == EAGAIN;
    }
    if (!someAreFull) return 0;
    for (const auto &stream : streams.list)
        if (const int error = WriteRest(*stream, batch); error != 0) return error;
    return 0;
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

bool Wants(const KeldStream &stream, const std::byte *record)
{
    return KeldSubscriptionMatches(stream.subscription, IdOf(record));
}

void TellBegin()
try {
    JournalBegin begin;
    begin.observations = streams.observations;
    for (const auto &stream : streams.list)
        begin.queued.push_back({stream->number, stream->queued});
    KeldJournalTellBegin(std::move(begin));
} catch (const std::bad_alloc &) {
    KeldJournalDisconnect();
}

// Tells the whole batch before any agent gets anything of it: else a fate could be told before its
// observation.
void TellIn(std::int32_t channel, const Batch &batch)
{
    if (KeldJournalBeginDue()) TellBegin();
    JournalIn &in = streams.told;
    in.observation = streams.observations;
    in.channel = channel;
    for (std::size_t at = 0; at < batch.size; at += in.record.bytes.size()) {
        const std::byte *record = batch.bytes + at;
        ++in.observation;
        in.record.bytes = {reinterpret_cast<const char *>(record), KelRecord_TotalLength(record)};
        in.to.clear();
        for (const auto &stream : streams.list) {
            if (!Wants(*stream, record)) continue;
            stream->told = std::max(stream->told, stream->queued) + 1;
            in.to.push_back({stream->number, stream->told});
        }
        KeldJournalTellWithNext([&]() -> const JournalIn & { return in; });
    }
    KeldJournalHandOver();
}

void TellLost(const KeldStream &stream, KeldFate fate)
{
    const std::uint64_t last = std::max(stream.queued, stream.told);
    if (stream.taken == last) return;
    KeldJournalTell([&] { return JournalLost{stream.number, fate, stream.taken, last}; });
}

// Gathers what the stream wants of the batch and has not got yet, as far as there are pieces: gives how
// many it took.
int Gather(const KeldStream &stream, const Batch &batch, iovec *pieces)
{
    int count = 0;
    const std::byte *end = nullptr; // of the last piece
    std::size_t length = 0;
    for (std::size_t at = stream.place; at < batch.size; at += length) {
        const std::byte *record = batch.bytes + at;
        length = KelRecord_TotalLength(record);
        if (!Wants(stream, record)) continue;
        if (record == end) {
            pieces[count - 1].iov_len += length;
        } else if (count < kPiecesMax) {
            const std::size_t begun = at == stream.place ? stream.begun : 0;
            pieces[count++] = {const_cast<std::byte *>(record) + begun, length - begun};
        } else {
            break;
        }
        end = record + length;
    }
    return count;
}

// Moves the stream's place to the first record that is not wholly written, and counts those before it.
void CountWritten(KeldStream &stream, const Batch &batch, std::size_t bytes)
{
    while (bytes > 0) {
        const std::byte *record = batch.bytes + stream.place;
        const std::size_t length = KelRecord_TotalLength(record);
        if (Wants(stream, record)) {
            const std::size_t left = length - stream.begun;
            if (bytes < left) {
                stream.begun += bytes;
                return;
            }
            bytes -= left;
            stream.begun = 0;
            KeldStatusQueued(stream.number, ++stream.queued);
        }
        stream.place += length;
    }
}

// Without waiting: 0 when the stream has all that it wants of the batch, EAGAIN, or another errno value.
int WriteWanted(KeldStream &stream, const Batch &batch)
{
    iovec pieces[kPiecesMax];
    while (const int count = Gather(stream, batch, pieces)) {
        const ssize_t written = writev(stream.writeFd.Get(), pieces, count);
        if (written < 0) return errno;
        CountWritten(stream, batch, static_cast<std::size_t>(written));
    }
    return 0;
}

// Writes the rest of what the stream wants, and waits whenever the pipe is full: 0 or an errno value. Once
// the exit was requested, records that are not begun are given up.
int WriteRest(KeldStream &stream, Batch batch)
{
    for (;;) {
        const int error = WriteWanted(stream, batch);
        if (error != EAGAIN) return error;
        const KeldStatusScope waits = KeldStatusScope::Pipe(stream.number);
        pollfd full{.fd = stream.writeFd.Get(), .events = POLLOUT, .revents = 0};
        if (!KeldExitRequested()) {
            if (KeldPoll(&full, 1) < 0 && errno != EINTR) return errno;
        } else if (stream.begun == 0) {
            return 0;
        } else {
            // The record at hand is finished: half of one could leave its agent reading for ever. The agent
            // soon reads on, since from here on nothing waits for the receiver.
            batch.size = stream.place + KelRecord_TotalLength(batch.bytes + stream.place);
            KeldSetStopping();
            (void)poll(&full, 1, -1);
        }
    }
}

} // namespace

// ---- The agents' side -------------------------------------------------------------------------------

int KeldStreamRegister(KeldAgentName owner, const KeldSubscription &subscription, KeldStream **stream)
try {
    auto made = std::make_unique<KeldStream>();
    if (!made->ahead.Make()) return 1;
    int ends[2];
    if (pipe(ends) != 0) return 2;
    made->readFd = UniqueFd(ends[0]);
    made->writeFd = UniqueFd(ends[1]);
    // KEPT: F_SETFD with this value leaves the read end blocking; the reader polls before every read.
    // The write end does not block: see WriteRest.
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

namespace {

// Throws away what waits, if anything comes within a moment.
void Discard(int fd)
{
    std::byte scratch[4096];
    pollfd waiting{.fd = fd, .events = POLLIN, .revents = 0};
    if (poll(&waiting, 1, kDrainMilliseconds) > 0) (void)!read(fd, scratch, sizeof scratch);
}

} // namespace
