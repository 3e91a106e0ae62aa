#include "keldStream.h"

#include "keldLog.h"
#include "keldStatus.h"

#include <kltlibs/kelrecord.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

int ReadOnce(KeldStream *stream);
[[noreturn]] void EndOfFile(const KeldStream *stream, std::uint32_t lacking);

} // namespace

int KeldStreamReadKel(KeldStream *stream, Kel **kel, bool *complete)
{
    *complete = false;
    KeldReadAhead &ahead = stream->ahead;
    if (ahead.Lacking() > 0) {
        const int error = ReadOnce(stream);
        if (error != 0) return error == EAGAIN ? 0 : 2;
        if (ahead.Lacking() > 0) return 0;
    }
    const std::uint32_t total = KelRecord_TotalLength(ahead.First());
    // KEPT: a record without a body is taken for the end of file.
    if (total == KELRECORD_HEADER_BYTES) EndOfFile(stream, 0);
    MallocPtr<std::byte> record(static_cast<std::byte *>(std::malloc(total)));
    if (record == nullptr) return 2;
    std::memcpy(record.get(), ahead.First(), total);
    if (Kel_MakeKel(record.get(), total, kel) != 0) return 1;
    (void)record.release();
    ahead.Take(total);
    stream->taken.store(stream->taken.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    KeldStatusTaken();
    *complete = true;
    return 0;
}

bool KeldStreamHoldsKel(const KeldStream *stream) { return stream->ahead.Lacking() == 0; }

namespace {

// 0 or an errno value.
int ReadOnce(KeldStream *stream)
{
    const auto room = stream->ahead.Room();
    const ssize_t count = read(stream->readFd.Get(), room.data(), room.size());
    if (count == 0) EndOfFile(stream, stream->ahead.Lacking());
    if (count < 0) return errno;
    stream->ahead.Add(static_cast<std::size_t>(count));
    return 0;
}

void EndOfFile(const KeldStream *stream, std::uint32_t lacking)
{
    Panic("EOF trying to read %d bytes from stream %p\n", static_cast<int>(lacking),
          static_cast<const void *>(stream));
}

} // namespace
