#include "keldChannel.h"

#include "keldDispatch.h"
#include "keldJournal.h"
#include "keldLog.h"
#include "keldStatus.h"

#include <cstdlib>

namespace {

// False without memory: the old buffer stays.
bool Grow(KeldRecordBuffer *buffer)
{
    const std::uint32_t size = KeldBufferBytesAfter(buffer->size);
    auto *grown = static_cast<std::byte *>(std::realloc(buffer->bytes.get(), size));
    if (grown == nullptr) return false;
    (void)buffer->bytes.release();
    buffer->bytes.reset(grown);
    buffer->size = size;
    return true;
}

} // namespace

int KeldReadChannel(int fd, std::int32_t channel, KeldRecordBuffer *buffer)
{
    std::uint32_t byteCount = 0;
    int status = 0;
    while ((status = KelLib_ReadFromFd(fd, buffer->bytes.get(), buffer->size, &byteCount)) != 0) {
        if (status != KELLIB_STATUS_TOO_SMALL || buffer->size == kKeldBufferBytesMax) return status;
        if (!Grow(buffer)) return status;
    }
    if (byteCount == 0) return -1;
    if (byteCount > kKeldBatchBytesMax) {
        KeldChannelTellDropped(channel, byteCount, "larger than a batch may be");
        return -1;
    }
    status = KeldDispatch(channel, buffer->bytes.get(), byteCount);
    // Grows ahead of need: several datagrams as large as these are to fit one batch.
    if (byteCount > buffer->size / 2 && buffer->size < kKeldBufferBytesEnough) (void)Grow(buffer);
    return status;
}

bool KeldRecordBufferInit(KeldRecordBuffer *buffer)
{
    buffer->bytes.reset(static_cast<std::byte *>(std::malloc(kKeldBufferBytesFirst)));
    buffer->size = kKeldBufferBytesFirst;
    return buffer->bytes != nullptr;
}

KeldChannelTable KeldChannelTemplate()
{
    KeldChannelTable channels{};
    for (std::size_t i = 0; i < channels.size(); ++i)
        channels[i].context = static_cast<std::int64_t>(i);
    return channels;
}

int KeldChannelOpen(KeldChannel *channel, int *fd)
{
    const auto context = static_cast<std::int32_t>(channel->context);
    const int status = context == KELLIB_USER_CONTEXT ? KelLib_UserContextOpen(context, &channel->handle)
                                                      : KelLib_AsyncContextOpen(context, &channel->handle);
    return status != 0 ? status : KelLib_HandleToFd(channel->handle, fd);
}

void KeldChannelCloseAll(KeldChannelTable *channels)
{
    for (KeldChannel &channel : *channels) {
        if (channel.handle == nullptr) continue;
        const int status = KelLib_Close(channel.handle);
        if (status != 0)
            KeldLog("Error closing handle %p: %d\n", static_cast<void *>(channel.handle), status);
        channel.handle = nullptr;
    }
}

void KeldChannelTellDropped(std::int32_t channel, std::size_t bytes, const char *why)
{
    KeldStatusDropped(static_cast<std::size_t>(channel));
    KeldJournalTell([=] { return JournalDropped{channel, bytes, why}; });
}
