// The observation channels, and reading them into the one record buffer. Main thread only.
#ifndef KELD_CHANNEL_H
#define KELD_CHANNEL_H

#include "keldOwn.h"

#include <kltlibs/kel.h>

#include <array>
#include <cstddef>
#include <cstdint>

struct KeldChannel {
    std::int64_t context;
    KelLibHandle *handle = nullptr; // null until opened
};
inline constexpr std::size_t kKeldChannels = KELLIB_ASYNC_CONTEXTS + 1; // the last is the user-level one
using KeldChannelTable = std::array<KeldChannel, kKeldChannels>;

// Contexts 0-22, none of them open.
KeldChannelTable KeldChannelTemplate();

// Opens one channel; 0 with *fd its descriptor, or the library's status.
int KeldChannelOpen(KeldChannel *channel, int *fd);

// Closes every open channel, logging what cannot be closed.
void KeldChannelCloseAll(KeldChannelTable *channels);

// One heap buffer for all reads, which grows and never shrinks: for what does not fit, and up to a point
// for what would fill more than half of it.
struct KeldRecordBuffer {
    MallocPtr<std::byte> bytes;
    std::uint32_t size = 0;
};
inline constexpr std::uint32_t kKeldBufferBytesFirst = 8192;
inline constexpr std::uint32_t kKeldBufferBytesEnough = 0x8000; // where it grows only for what does not fit
inline constexpr std::uint32_t kKeldBufferBytesMax = 0x20000;
inline constexpr std::uint32_t kKeldBatchBytesMax = 0x1FFFF;
static_assert(kKeldBatchBytesMax < kKeldBufferBytesMax, "the largest batch fits the largest buffer");

// The size that follows when what waits does not fit: half as much again, up to the largest.
constexpr std::uint32_t KeldBufferBytesAfter(std::uint32_t size)
{
    return size * 3 < 2 * kKeldBufferBytesMax ? size * 3 / 2 : kKeldBufferBytesMax;
}

// False without memory.
bool KeldRecordBufferInit(KeldRecordBuffer *buffer);

// Reads one batch from fd, of that channel, and dispatches it. 0; KELLIB_STATUS_TOO_SMALL when what waits
// does not fit the largest buffer; -1 when the batch was empty or too large; otherwise the library's status
// or the errno of a failed pipe write.
int KeldReadChannel(int fd, std::int32_t channel, KeldRecordBuffer *buffer);

// Counts what was refused on a channel, and tells the journal. bytes is 0 when nobody knows.
void KeldChannelTellDropped(std::int32_t channel, std::size_t bytes, const char *why);

#endif
